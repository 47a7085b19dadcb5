#include "service/handlers.h"
#include "service/served_document.h"
#include "service/service.h"

namespace keldra::handlers {

bool checkConfiguration(Service&, const IPCMessage&, IPCMessage&) {
    // That it can be used has been looked at before the handler was called.
    return true;
}

bool getConfiguration(Service& service, const IPCMessage&, IPCMessage& reply) {
    const auto config = service.configuration().snapshot();
    reply.addParam("Content", servedDocument(service, *config));
    reply.addParam("LastModified", config->lastModified());
    return true;
}

}  // namespace keldra::handlers
