#include "norv/au_config.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

namespace keldra::handlers {

bool startManualUpdate(Service& service, const IPCMessage& request, IPCMessage& reply) {
    NORVManualAUConfig record(*service.configuration().snapshot());
    if (!parseRecord(request.value<std::string>("ManualAUConfig"), record)) {
        reply.addParam("Message", "The settings are malformed.");
        return false;
    }
    const auto id = request.value<std::string>("RequestID");
    if (service.updater().startManual(id, record.components)) return true;
    reply.addParam("Message", "There is another update currently in progress.");
    return false;
}

bool getUpdateStatus(Service& service, const IPCMessage&, IPCMessage& reply) {
    const UpdateStatus status = service.updater().status();
    reply.addParam("Running", status.running ? 1 : 0);
    reply.addParam("Scheduled", status.scheduled ? 1 : 0);
    reply.addParam("RequestID", status.requestId);
    reply.addParam("Progress", status.progress);
    reply.addParam("Started", status.started);
    reply.addParam("Ended", status.ended);
    reply.addParam("Succeeded", status.succeeded ? 1 : 0);
    reply.addParam("Installed", status.installed ? 1 : 0);
    reply.addParam("Message", status.message);
    return true;
}

}  // namespace keldra::handlers
