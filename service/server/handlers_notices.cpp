#include "norv/protocol/notices.h"
#include "service/notices/notices.h"
#include "service/server/handlers.h"

#include <string>
#include <utility>

namespace keldra::handlers {

bool getNotices(Notices& notices, IPCMessage& reply) {
    write(reply, notices.served());
    return true;
}

bool setNotices(Notices& notices, const IPCMessage& request, IPCMessage& reply) {
    NoticeSettings settings = notices.served();
    protocol::read(request, settings);
    const std::string fault = notices.store(settings);
    return fault.empty() || refuse(fault, reply);
}

bool testNotices(Notices& notices, IPCMessage& reply) {
    const std::string fault = notices.test();
    return fault.empty() || refuse(fault, reply);
}

}  // namespace keldra::handlers
