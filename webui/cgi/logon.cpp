#include "webui/cgi/logon.h"

#include "norv/log.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/configuration.h"
#include "webui/cgi/utils/cookies.h"

#include <cstddef>
#include <cstdlib>
#include <map>
#include <string>

namespace {

constexpr std::size_t MAX_PASSWORD_LENGTH = 32;
constexpr unsigned long CSRF_TOKEN_BYTES = 32;

/// Asks the service to open a session. The session's id, empty when it refused.
std::string openSession(const CQSControl& qs) {
    std::string password = qs.getEnv("T1");
    if (password.size() > MAX_PASSWORD_LENGTH) {
        NORV_LOG(NORV_LOG_REFUSED, "Exceeds maximum length of a password");
        return "";
    }
    const char* const address = std::getenv("REMOTE_ADDR");
    if (!address) {
        NORV_LOG(NORV_LOG_REFUSED, "Failed to get remote addr");
        return "";
    }
    if (!encrypt_string(password)) {
        NORV_LOG(NORV_LOG_REFUSED, "encrypt_string() failed.");
        return "";
    }
    IPCMessage request(IPCMessage::SESSION, IPCMessage::PASSWORD_LOGON);
    request.addParam("Password", password);
    request.addParam("User", qs.getEnv("tfUserName"));
    request.addParam("RemoteAddr", address);
    IPCMessage reply;
    return exchangeAccepted(request, reply) ? reply.value<std::string>("SessionID") : "";
}

}  // namespace

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

void PasswordLogon(const CQSControl& qs) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    const std::string session = openSession(qs);
    if (session.empty()) {
        page.outputPage("password_wrong.html");
        return;
    }
    page.addCookie("hvssn", session);
    page.addCookie("CsrfToken", genRandomHex(CSRF_TOKEN_BYTES));
    page.addHeader("Status", "303 See Other");
    page.addHeader("Location", "/NorvLinux/showpage.cgi?page=norv_main.html");
    page.outputPage("");
}
