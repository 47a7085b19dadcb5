#include "norv/protocol/updates.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

namespace keldra::handlers {

bool startManualUpdate(Service& service, const IPCMessage& request, IPCMessage& reply) {
    protocol::StartManualUpdate wanted{.requestId = {},
                                       .settings = NORVManualAUConfig(*service.configuration().snapshot())};
    if (!request.hasParam(wanted.PARAMETER) || !read(request, wanted))
        return refuse("The settings are malformed.", reply);
    if (service.updater().startManual(wanted.requestId, wanted.settings.components)) return true;
    return refuse("There is another update currently in progress.", reply);
}

bool getUpdateStatus(Service& service, const IPCMessage&, IPCMessage& reply) {
    const UpdateStatus status = service.updater().status();
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
