#include "norv/protocol/events.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/console/console_page.h"
#include "webui/console/csv.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

/// Events sent when the script does not say how many.
constexpr uint64_t AT_A_TIME = 200;
/// The most that are fetched at a time, and for a file in all.
constexpr uint64_t IN_A_PART = 1000;
constexpr std::size_t MOST_IN_FILE = 100000;

/// What the request's filters ask for, `count` at a time.
auto questionOf(const ConsoleRequest& request, uint64_t count) {
    protocol::ListEvents question;
    question.count = count;
    question.kinds = request.text("kinds");
    question.severity = request.text("severity");
    question.text = request.text("text");
    readNumber(request.text("since"), question.since);
    readNumber(request.text("until"), question.until);
    readNumber(request.text("before"), question.before);
    return question;
}

int listEvents(const ConsoleRequest& request) {
    uint64_t count = AT_A_TIME;
    readNumber(request.text("count"), count);
    auto answer = askOrAnswer(questionOf(request, std::clamp<uint64_t>(count, 1, IN_A_PART)));
    if (!answer) return 1;
    for (auto& event : answer.reply.events) {
        event.action = translateServiceText(event.action);
        event.detail = eventDetailText(consoleWords(), event.kind, event.detail);
    }
    JsonText json;
    json.object([&] { json.member("total", answer.reply.total).member("events", answer.reply.events); });
    return answerJson(json.text());
}

/// What the last days brought, for the picture on the overview.
int listFigures() {
    const auto answer = askOrAnswer(protocol::GetDailyFigures());
    if (!answer) return 1;
    JsonText json;
    json.object([&] { json.member("days", answer.reply.figures); });
    return answerJson(json.text());
}

/// All events that match, as far back as a file may reach.
int exportEvents(const ConsoleRequest& request) {
    std::string csv = headings({"Time (server time)", "Kind", "Severity", "Task", "File", "Malware", "What was done",
                                "Remark", "User", "Address", "Count"});
    const Words& words = consoleWords();
    auto question = questionOf(request, IN_A_PART);
    for (std::size_t count = 0; count < MOST_IN_FILE;) {
        const auto answer = askOrAnswer(question);
        if (!answer) return 1;
        const auto& events = answer.reply.events;
        if (events.empty()) break;
        for (const auto& event : events) {
            csv += csvLine({csvTime(event.time), eventKindText(words, event.kind),
                            eventSeverityText(words, event.severity), eventTaskText(words, event.kind, event.task),
                            event.path, event.signature, serviceText(words, event.action),
                            eventDetailText(words, event.kind, event.detail), event.user, event.address,
                            std::to_string(event.count)});
        }
        count += events.size();
        question.before = events.back().id;
    }
    return answerDownload("text/csv; charset=utf-8", "keldra-events.csv", csv);
}

int showPage() { return showConsolePage("events.html"); }

int handle(const ConsoleRequest& request) {
    if (request.has("csv")) return exportEvents(request);
    if (request.has("figures")) return listFigures();
    return request.has("list") ? listEvents(request) : showPage();
}

}  // namespace

/// What happened on this server: the page, the events as JSON and as CSV, and the figures of the last days.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
