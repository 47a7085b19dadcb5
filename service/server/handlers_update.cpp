#include "norv/protocol/updates.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"
#include "service/updates/updater.h"

namespace keldra::handlers {

bool startManualUpdate(ConfigurationStore& configuration, Updater& updater, const IPCMessage& request,
                       IPCMessage& reply) {
    protocol::StartManualUpdate wanted{.requestId = {}, .settings = NORVManualAUConfig(*configuration.snapshot())};
    if (!request.hasParam(wanted.PARAMETER) || !read(request, wanted))
        return refuse("The settings are malformed.", reply);
    return updater.startManual(wanted.requestId, wanted.settings.components) ||
           refuse("There is another update currently in progress.", reply);
}

bool getUpdateStatus(Updater& updater, IPCMessage& reply) {
    const UpdateStatus status = updater.status();
    write(reply, protocol::UpdateProgress{.running = status.running,
                                          .scheduled = status.scheduled,
                                          .requestId = status.requestId,
                                          .progress = status.progress,
                                          .started = status.started,
                                          .ended = status.ended,
                                          .succeeded = status.succeeded,
                                          .installed = status.installed,
                                          .message = status.message});
    return true;
}

}  // namespace keldra::handlers
