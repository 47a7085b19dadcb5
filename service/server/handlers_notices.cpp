#include "norv/protocol/notices.h"
#include "service/notices/notices.h"
#include "service/server/handlers.h"

#include <string>
#include <utility>

namespace keldra::handlers {

bool getNotices(Notices& notices, const Caller& caller, const IPCMessage& request, IPCMessage& reply) {
    const bool secrets = caller.owner && protocol::read<protocol::GetNotices>(request).secrets;
    const NoticeState state = notices.state();
    write(reply, protocol::NoticeReport{secrets ? notices.settings() : notices.served(), notices.revision(),
                                        state.waiting, state.problem});
    return true;
}

bool setNotices(Notices& notices, const IPCMessage& request, IPCMessage& reply) {
    protocol::SetNotices wanted{notices.served(), {}};
    protocol::read(request, wanted);
    const std::string fault = notices.store(wanted, wanted.revision);
    return fault.empty() || refuse(fault, reply);
}

bool testNotices(Notices& notices, const IPCMessage& request, IPCMessage& reply) {
    const std::string fault = notices.test(protocol::read<protocol::TestNotices>(request).way);
    return fault.empty() || refuse(fault, reply);
}

}  // namespace keldra::handlers
