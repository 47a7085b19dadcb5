// Apart from the session check, which every page makes, so that only the log-on links the cipher library.
#include "webui/cgi/logon.h"

#include "norv/log.h"
#include "norv/protocol/session.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/cookies.h"
#include "webui/cgi/utils/encryption.h"

#include <cstdlib>
#include <string>

namespace {

constexpr unsigned long CSRF_TOKEN_BYTES = 32;

/// Asks the service to open a session. The session's id, empty when it refused.
std::string openSession(const CQSControl& qs) {
    std::string password = qs.getEnv("T1");
    if (password.size() > protocol::MAX_PASSWORD_LENGTH) {
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
    const auto answer =
        askService(protocol::LogOn{.user = qs.getEnv("tfUserName"), .password = password, .remoteAddress = address});
    return answer ? answer.reply.id : "";
}

}  // namespace

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
