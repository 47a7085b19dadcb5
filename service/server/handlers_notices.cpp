#include "norv/protocol/notices.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

#include <string>
#include <utility>

namespace keldra::handlers {

bool getNotices(Service& service, const IPCMessage&, IPCMessage& reply) {
    write(reply, service.notices().served());
    return true;
}

bool setNotices(Service& service, const IPCMessage& request, IPCMessage& reply) {
    NoticeSettings settings = service.notices().served();
    protocol::read(request, settings);
    const std::string fault = service.notices().store(settings);
    return fault.empty() || refuse(fault, reply);
}

bool testNotices(Service& service, const IPCMessage&, IPCMessage& reply) {
    const std::string fault = service.notices().test();
    return fault.empty() || refuse(fault, reply);
}

}  // namespace keldra::handlers
