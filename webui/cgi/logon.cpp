#include "webui/cgi/logon.h"

#include "norv/log.h"
#include "norv/protocol/session.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/cookies.h"

#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

namespace {

SessionState answerTo(IPCMessage::CommandID command, const protocol::SessionProof& proof) {
    IPCMessage request(IPCMessage::SESSION, command);
    write(request, proof);
    IPCMessage reply;
    if (!sendMessage(request, reply, SERVICE_TIMEOUT) || reply.result != IPCMessage::RESULT_OK)
        return SessionState::NONE;
    const bool mustChange = protocol::read<protocol::SessionChecked>(reply).mustChange;
    return mustChange ? SessionState::MUST_CHANGE : SessionState::GOOD;
}

}  // namespace

bool SessionOperation(IPCMessage::CommandID cmd, const CQSControl& qs) {
    return stateOfSession(cmd, qs) != SessionState::NONE;
}

SessionState stateOfSession(IPCMessage::CommandID cmd, const CQSControl& qs) {
    const char* const cookieHeader = std::getenv("HTTP_COOKIE");
    const char* const address = std::getenv("REMOTE_ADDR");
    const char* const method = std::getenv("REQUEST_METHOD");
    if (!cookieHeader || !address) {
        NORV_LOG(NORV_LOG_REFUSED, "cannot find cookie or remote addr");
        return SessionState::NONE;
    }
    NORV_TRACE("HTTP_COOKIE=[%s], REMOTE_ADDR=[%s]", cookieHeader, address);
    std::map<std::string, std::string> cookies = parseCookie(cookieHeader);
    if (cookies["hvssn"].empty()) {
        NORV_LOG(NORV_LOG_REFUSED, "No session id found");
        return SessionState::NONE;
    }
    const protocol::SessionProof proof{.id = cookies["hvssn"],
                                       .remoteAddress = address,
                                       .requestMethod = method ? method : "",
                                       .formToken = qs.getEnv("CsrfToken"),
                                       .cookieToken = cookies["CsrfToken"]};
    const SessionState state = answerTo(cmd, proof);
    if (state == SessionState::NONE) NORV_TRACE("session operation failed");
    return state;
}

IPCMessage::CommandID sessionCheck() {
    const char* const askedBy = std::getenv("HTTP_KELDRA_ASKED_BY");
    return askedBy && std::string_view(askedBy) == "page" ? IPCMessage::SESSION_WATCH : IPCMessage::SESSION_CHECK;
}

void LogoffNorv(const CQSControl& qs) {
    NORV_TRACE("ENTER");
    SessionOperation(IPCMessage::SESSION_LOGOFF, qs);
    redirectTo("/");
}
