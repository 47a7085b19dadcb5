#include "webui/console/json_response.h"

#include "norv/locale.h"
#include "norv/log.h"
#include "norv/protocol/configuration.h"
#include "webui/cgi/logon.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/startup.h"
#include "webui/cgi/utils/configuration.h"
#include "webui/console/service_text.h"

#include <utility>

namespace {

void send(CPageWrapper& page, const std::string& body) {
    page.outputPage("");
    writeOut(body);
}

bool serviceAnswers() { return askService(protocol::CheckConfiguration()).reached; }

}  // namespace

int runConsoleProgram(int argc, char** argv, int (*handle)(const ConsoleRequest& request),
                      WithoutService withoutService, AskedBy askedBy, Password password) {
    openLog({}, argc > 0 ? argv[0] : nullptr);
    NORV_TRACE("Enter");
    set_norv_locale();
    CQSControl fields;
    if (!readRequest(fields)) return 1;
    const auto check = askedBy == AskedBy::PAGE ? IPCMessage::SESSION_WATCH : sessionCheck();
    const SessionState state = stateOfSession(check, fields);
    if (state == SessionState::MUST_CHANGE && password == Password::OWN) {
        goTo(ACCOUNT_PAGE);
        return 1;
    }
    if (state == SessionState::NONE) {
        if (withoutService == WithoutService::TELL && !serviceAnswers())
            return answerError("503 Service Unavailable", NOT_RESPONDING);
        NORV_LOG(NORV_LOG_WARNING, "Authentication invalid");
        redirectTo("/");
        return 1;
    }
    return handle({fields});
}

std::optional<NORVConfig> ConsoleRequest::fetchConfiguration() const {
    NORVConfig config;
    return getNORVConfigFromEntity(config) ? std::optional(std::move(config)) : std::nullopt;
}

int answerJson(const std::string& json, const std::string& status) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_NONE);
    page.addHeader("Content-type", "application/json");
    if (!status.empty()) page.addHeader("Status", status);
    send(page, json);
    return 0;
}

int answerError(const std::string& status, const std::string& message) {
    NORV_LOG(NORV_LOG_WARNING, "%s: %s", status.c_str(), message.c_str());
    JsonText json;
    json.object([&] { json.member("error", translateServiceText(message)); });
    answerJson(json.text(), status);
    return 1;
}

int answerDownload(const std::string& contentType, const std::string& fileName, const std::string& content) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_NONE);
    page.addHeader("Content-type", contentType);
    page.addHeader("Content-Disposition", "attachment; filename=\"" + fileName + "\"");
    send(page, content);
    return 0;
}

bool requirePost(const ConsoleRequest& request) {
    if (request.isPost()) return true;
    answerError("405 Method Not Allowed", "This request must be sent by a page of the console.");
    return false;
}

Failure failureOf(bool reached, bool done, const std::string& reason, const std::string& refusalStatus) {
    if (!reached) return {"503 Service Unavailable", NOT_RESPONDING};
    if (done) return {"502 Bad Gateway", "The answer of the service cannot be read."};
    return {refusalStatus, reason.empty() ? "The service refused the request." : reason};
}
