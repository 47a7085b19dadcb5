#include "norv/protocol/session.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/utils/cookies.h"
#include "webui/cgi/utils/encryption.h"
#include "webui/console/console_page.h"
#include "webui/console/json_response.h"

#include <string>

namespace {

constexpr unsigned long CSRF_TOKEN_BYTES = 32;

/// A password from the request, enciphered for the way to the service. Empty when that fails, which is answered.
std::string enciphered(const ConsoleRequest& request, const char* field) {
    std::string password = request.text(field);
    if (password.size() > protocol::MAX_PASSWORD_LENGTH) {
        answerError("409 Conflict", "The password is longer than 32 bytes.");
        return {};
    }
    if (encrypt_string(password)) return password;
    answerError("503 Service Unavailable", "The key that passwords are enciphered with cannot be read.");
    return {};
}

/// All that the page shows. Whoever must change the password first is told nothing else.
int listAccount() {
    const auto state = askOrAnswer(protocol::GetSecondFactor());
    if (!state) return 1;
    const auto sessions = askService(protocol::GetSessions());
    JsonText json;
    json.object([&] {
        json.member("mustChange", state.reply.mustChange).member("on", state.reply.on);
        json.member("recoveryCodes", state.reply.recoveryCodes);
        json.member("sessions", sessions.reply.sessions).member("blocked", sessions.reply.blocked);
    });
    return answerJson(json.text());
}

/// All sessions end with the old password; the browser gets a new one.
int changePassword(const ConsoleRequest& request) {
    const std::string present = enciphered(request, "Old");
    const std::string wanted = present.empty() ? "" : enciphered(request, "New");
    if (wanted.empty()) return 1;
    const auto answer = askOrAnswer(protocol::ChangePassword{present, wanted});
    if (!answer) return 1;
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_NONE);
    page.addHeader("Content-type", "application/json");
    if (!answer.reply.id.empty()) {
        page.addCookie("hvssn", answer.reply.id);
        page.addCookie("CsrfToken", genRandomHex(CSRF_TOKEN_BYTES));
    }
    page.outputPage("");
    writeOut("{}");
    return 0;
}

int beginSecondStep(const ConsoleRequest& request) {
    const std::string password = enciphered(request, "Old");
    if (password.empty()) return 1;
    const auto answer = askOrAnswer(protocol::BeginSecondFactor{password});
    if (!answer) return 1;
    JsonText json;
    json.object([&] { json.member("secret", answer.reply.secret); });
    return answerJson(json.text());
}

int confirmSecondStep(const ConsoleRequest& request) {
    const auto answer = askOrAnswer(protocol::ConfirmSecondFactor{request.text("Code")});
    if (!answer) return 1;
    JsonText json;
    json.object([&] { json.member("codes", answer.reply.codes); });
    return answerJson(json.text());
}

int removeSecondStep(const ConsoleRequest& request) {
    const std::string password = enciphered(request, "Old");
    return !password.empty() && askOrAnswer(protocol::RemoveSecondFactor{password}) ? answerJson("{}") : 1;
}

int act(const ConsoleRequest& request) {
    const std::string action = request.text("action");
    if (action == "password") return changePassword(request);
    if (action == "begin") return beginSecondStep(request);
    if (action == "confirm") return confirmSecondStep(request);
    if (action == "remove") return removeSecondStep(request);
    if (action == "end") return askOrAnswer(protocol::EndSession{request.text("session")}) ? answerJson("{}") : 1;
    if (action == "lift") return askOrAnswer(protocol::LiftBlock{request.text("address")}) ? answerJson("{}") : 1;
    return answerError("400 Bad Request", "There is no such action.");
}

int handle(const ConsoleRequest& request) {
    if (request.has("list")) return listAccount();
    if (request.has("action")) return requirePost(request) ? act(request) : 1;
    return showConsolePage("account.html");
}

}  // namespace

/// The console's password, the second step of the log-on, and who is logged on: the page and what is done on it.
int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, handle, WithoutService::LOG_ON, AskedBy::PERSON, Password::ANY);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
