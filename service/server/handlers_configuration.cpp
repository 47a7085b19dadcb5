#include "norv/protocol/configuration.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

namespace keldra::handlers {

bool checkConfiguration(Service&, const IPCMessage&, IPCMessage&) {
    // That it can be used has been looked at before the handler was called.
    return true;
}

bool getConfiguration(Service& service, const IPCMessage&, IPCMessage& reply) {
    const auto config = service.configuration().snapshot();
    const RealtimeState realtime = service.realtime().state();
    const ServedState state{service.varPath(), service.updater().versions(), realtime.serviceRuns(),
                            realtime.kernelAllows};
    write(reply, protocol::Configuration{service.servedDocument().text(config, state), config->lastModified()});
    return true;
}

}  // namespace keldra::handlers
