#include "webui/cgi/logon.h"

#include "norv/log.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/cookies.h"

#include <cstdlib>
#include <map>
#include <string>

bool SessionOperation(IPCMessage::CommandID cmd, const CQSControl& qs) {
    const char* const cookieHeader = std::getenv("HTTP_COOKIE");
    const char* const address = std::getenv("REMOTE_ADDR");
    const char* const method = std::getenv("REQUEST_METHOD");
    if (!cookieHeader || !address) {
        NORV_LOG(NORV_LOG_REFUSED, "cannot find cookie or remote addr");
        return false;
    }
    NORV_TRACE("HTTP_COOKIE=[%s], REMOTE_ADDR=[%s]", cookieHeader, address);
    std::map<std::string, std::string> cookies = parseCookie(cookieHeader);
    if (cookies["hvssn"].empty()) {
        NORV_LOG(NORV_LOG_REFUSED, "No session id found");
        return false;
    }
    IPCMessage request(IPCMessage::SESSION, cmd);
    request.addParam("SessionID", cookies["hvssn"]);
    request.addParam("RemoteAddr", address);
    request.addParam("RequestMethod", method);
    request.addParam("CsrfTokenHeader", qs.getEnv("CsrfToken"));
    request.addParam("CsrfTokenCookie", cookies["CsrfToken"]);
    IPCMessage reply;
    if (!exchangeAccepted(request, reply)) {
        NORV_TRACE("session operation failed");
        return false;
    }
    return true;
}

void LogoffNorv(const CQSControl& qs) {
    NORV_TRACE("ENTER");
    SessionOperation(IPCMessage::SESSION_LOGOFF, qs);
    redirectTo("/");
}
