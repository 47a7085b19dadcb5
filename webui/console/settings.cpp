#include "norv/protocol/service_settings.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/console/console_page.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

namespace {

/// The settings, their words in the console's language, and folders that may be worth guarding.
int listSettings() {
    auto answer = askOrAnswer(protocol::GetServiceSettings());
    if (!answer) return 1;
    for (protocol::ServiceSetting& setting : answer.reply.settings) setting.about = translateServiceText(setting.about);
    JsonText json;
    json.object([&] {
        json.member("settings", answer.reply.settings);
        json.member("proposals", askService(protocol::GetShareProposals()).reply.proposals);
    });
    return answerJson(json.text());
}

/// Hands on what is to be set and what the page believes to be stored; the service takes all of it or nothing.
int save(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    const auto answer = askOrAnswer(protocol::SetServiceSettings{request.text("settings"), request.text("expected")});
    if (!answer) return 1;
    JsonText json;
    json.object([&] { json.member("backup", !answer.reply.backupResult.has_value()); });
    return answerJson(json.text());
}

int showPage() { return showConsolePage("settings.html"); }

int handle(const ConsoleRequest& request) {
    if (request.isPost() || request.has("settings")) return save(request);
    return request.has("list") ? listSettings() : showPage();
}

}  // namespace

/// Settings of the service that belong to no scan: the page, their list as JSON, and their saving.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
