#include "norv/protocol/notices.h"
#include "norv/json_value.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/console/console_page.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

namespace {

/// Longer than the service gives one message.
constexpr unsigned int TEST_TIMEOUT = 40;

/// Hands the fields on to `field`, each as one that has a value; secrets have none in an answer.
template <typename Record>
void visitPlain(Record& record, auto&& field) {
    Record::visit(record, [&field](const char* name, auto& member) {
        if constexpr (!requires { member.has_value(); }) field(name, member);
    });
}

int listSettings() {
    auto answer = askOrAnswer(protocol::GetNotices());
    if (!answer) return 1;
    answer.reply.problem = translateServiceText(answer.reply.problem);
    JsonText json;
    json.object([&] {
        visitPlain(answer.reply, [&json](const char* name, const auto& member) { json.member(name, member); });
    });
    return answerJson(json.text());
}

/// The settings from the request's field; a secret that it does not hold stays as it is.
bool readSettings(const std::string& text, protocol::SetNotices& settings) {
    const auto json = parseJson(text);
    if (!json.IsObject()) return false;
    bool good = true;
    protocol::SetNotices::visit(settings, [&](const char* name, auto& member) {
        const auto found = json.FindMember(name);
        if (found == json.MemberEnd()) return;
        if constexpr (requires { member.has_value(); })
            good = readJson(found->value, member.emplace()) && good;
        else
            good = readJson(found->value, member) && good;
    });
    return good;
}

int save(const ConsoleRequest& request) {
    protocol::SetNotices settings;
    if (!readSettings(request.text("settings"), settings))
        return answerError("400 Bad Request", "The settings cannot be read.");
    return askOrAnswer(settings) ? answerJson("{}") : 1;
}

int test(const ConsoleRequest& request) {
    const auto answer = protocol::ask(protocol::TestNotices{request.text("way")}, TEST_TIMEOUT);
    if (answer) return answerJson("{}");
    const Failure failure = failureOf(answer.reached, answer.done, answer.message, "409 Conflict");
    return answerError(failure.status, failure.message);
}

int handle(const ConsoleRequest& request) {
    if (request.has("list")) return listSettings();
    if (!request.has("action")) {
        return showConsolePage("notices.html");
    }
    if (!requirePost(request)) return 1;
    return request.text("action") == "test" ? test(request) : save(request);
}

}  // namespace

/// Who is told of what happens, and how: the page, its settings as JSON, their saving, and a test.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
