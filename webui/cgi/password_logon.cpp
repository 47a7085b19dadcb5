// Apart from the session check, which every page makes, so that only the log-on links the cipher library.
#include "webui/cgi/logon.h"

#include "norv/log.h"
#include "norv/protocol/session.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/cookies.h"
#include "webui/cgi/utils/encryption.h"
#include "webui/console/service_text.h"

#include <cstdlib>
#include <string>

namespace {

constexpr unsigned long CSRF_TOKEN_BYTES = 32;
/// Seconds; while others guess, a log-on waits for its turn, but shorter than that and than web servers wait.
constexpr unsigned int LOGON_TIMEOUT = 50;

constexpr const char* WRONG =
    "The user name or the password is wrong. After several failed attempts there is a short wait.";
constexpr const char* NO_KEY = "The key that passwords are enciphered with cannot be read.";
constexpr std::size_t LONGEST_CODE = 64;
constexpr const char* WRONG_CODE = "That code is wrong, or was used before.";
constexpr const char* NO_ANSWER = "The service does not answer. Your password was not checked.";

/// The session that was opened, or why none was.
struct LogOn {
    std::string session{};
    std::string ticket{};  ///< for the code that is asked for first
    std::string reason{};  ///< English; empty: user name or password are wrong
};

/// Asks the service to open a session.
LogOn openSession(const CQSControl& qs) {
    std::string password = qs.getEnv("T1");
    if (password.size() > protocol::MAX_PASSWORD_LENGTH) {
        NORV_LOG(NORV_LOG_REFUSED, "Exceeds maximum length of a password");
        return {};
    }
    const char* const address = std::getenv("REMOTE_ADDR");
    if (!address) {
        NORV_LOG(NORV_LOG_REFUSED, "Failed to get remote addr");
        return {};
    }
    if (!encrypt_string(password)) {
        NORV_LOG(NORV_LOG_REFUSED, "encrypt_string() failed.");
        return {.reason = NO_KEY};
    }
    const protocol::LogOn wanted{.user = qs.getEnv("tfUserName"), .password = password, .remoteAddress = address};
    const auto answer = askService(wanted, LOGON_TIMEOUT);
    if (!answer.reached) return {.reason = NO_ANSWER};
    return answer ? LogOn{answer.reply.id, answer.reply.ticket.value_or("")} : LogOn{.reason = answer.message};
}

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '&')
            result += "&amp;";
        else if (c == '<')
            result += "&lt;";
        else
            result += c;
    }
    return result;
}

/// That a password is wrong is said of wrong passwords only.
void showFailure(CPageWrapper& page, const std::string& reason) {
    const std::string why = reason.empty() ? WRONG : "Could not log you on: " + reason;
    page.addDStringItem("__LOGON_FAILURE__", escaped(translateServiceText(why)));
    page.outputPage("password_wrong.html");
}

/// The service makes tickets of such digits only.
bool isTicket(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void askForCode(CPageWrapper& page, const std::string& ticket, const std::string& complaint) {
    page.addDStringItem("__LOGON_TICKET__", ticket);
    page.addDStringItem("__LOGON_COMPLAINT__", escaped(translateServiceText(complaint)));
    page.outputPage("second_step.html");
}

void enter(CPageWrapper& page, const std::string& session) {
    page.addCookie("hvssn", session);
    page.addCookie("CsrfToken", genRandomHex(CSRF_TOKEN_BYTES));
    page.addHeader("Status", "303 See Other");
    page.addHeader("Location", "/NorvLinux/showpage.cgi?page=norv_main.html");
    page.outputPage("");
}

}  // namespace

void SecondStepLogon(const CQSControl& qs) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    const char* const address = std::getenv("REMOTE_ADDR");
    const std::string ticket = qs.getEnv("Ticket");
    const std::string code = qs.getEnv("Code");
    if (!address || !isTicket(ticket)) return showFailure(page, "");
    if (code.empty() || code.size() > LONGEST_CODE) return askForCode(page, ticket, WRONG_CODE);
    const auto answer = askService(protocol::SecondStep{.ticket = ticket, .code = code, .remoteAddress = address});
    if (!answer.reached) return showFailure(page, NO_ANSWER);
    if (!answer) return showFailure(page, answer.message);
    if (answer.reply.id.empty()) return askForCode(page, ticket, WRONG_CODE);
    enter(page, answer.reply.id);
}

void PasswordLogon(const CQSControl& qs) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    const LogOn logOn = openSession(qs);
    if (isTicket(logOn.ticket)) return askForCode(page, logOn.ticket, "");
    if (logOn.session.empty()) return showFailure(page, logOn.reason);
    enter(page, logOn.session);
}
