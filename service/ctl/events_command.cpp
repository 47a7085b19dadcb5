#include "norv/protocol/events.h"
#include "norv/service_text.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace keldra {

namespace {

constexpr std::uint64_t PAGE = 1000;
constexpr std::int64_t DAY = 86400;

struct EventsOptions {
    std::vector<std::string> kinds;
    std::string severity;
    std::string text;
    std::int64_t days = 0;
    std::uint64_t limit = 100;
    bool csv = false;
};

protocol::ListEvents questionOf(const EventsOptions& options) {
    protocol::ListEvents question;
    for (const std::string& kind : options.kinds) question.kinds += (question.kinds.empty() ? "" : ",") + kind;
    question.severity = options.severity;
    question.text = options.text;
    if (options.days > 0) question.since = std::time(nullptr) - options.days * DAY;
    return question;
}

void printEvent(const protocol::Event& event) {
    std::string line = timeText(event.time) + "  " + event.severity + "  " + event.kind;
    for (const std::string& part :
         {event.task, event.path, event.signature, event.action, eventDetailText(Words(), event.kind, event.detail)})
        if (!part.empty()) line += "  " + printable(part);
    if (event.count != 1) line += "  (" + std::to_string(event.count) + " times)";
    if (!event.user.empty() || !event.address.empty())
        line += "  by " + printable(event.user) + (event.address.empty() ? "" : " from " + printable(event.address));
    print(line);
}

std::string shown(const std::string& text) { return csvField(printable(text)); }
template <std::integral T>
std::string shown(T number) {
    return std::to_string(number);
}

void printCsv(protocol::Event event) {
    event.detail = eventDetailText(Words(), event.kind, event.detail);
    std::string line;
    protocol::Event::visit(
        event, [&line](const char*, const auto& field) { line += (line.empty() ? "" : ",") + shown(field); });
    print(line);
}

int runEvents(const EventsOptions& options) {
    protocol::ListEvents question = questionOf(options);
    LowerJson json;
    Fault fault;
    if (options.csv) print("id,time,kind,severity,task,path,signature,action,detail,user,address,count");
    json.array([&] {
        for (std::uint64_t left = options.limit; left > 0 && fault.empty();) {
            question.count = std::min(left, PAGE);
            const auto answer = ask(question);
            if (!answer) fault = faultOf(answer);
            const auto& events = answer.reply.events;
            if (events.empty()) break;
            for (const protocol::Event& event : events)
                jsonWanted() ? void(json.value(event)) : options.csv ? printCsv(event) : printEvent(event);
            question.before = events.back().id;
            left -= std::min<std::uint64_t>(left, events.size());
        }
    });
    if (!fault.empty()) return fail(fault);
    if (jsonWanted()) print(json.text());
    return STATUS_DONE;
}

}  // namespace

void describeEvents(CLI::App& app, Run& run) {
    EventsOptions* options = nullptr;
    CLI::App* const events = addCommand(app, run, "events", "List what happened, newest first", options, runEvents);
    events->add_option(
        "--kind", options->kinds,
        "Only these: find, not_scanned, scan, update, settings, logon, quarantine, service; may be repeated");
    events->add_option("--severity", options->severity, "Only from this one on: info, warning, alert");
    events->add_option("--text", options->text, "Only where this occurs in any text");
    events->add_option("--days", options->days, "Only of so many days")->check(CLI::PositiveNumber);
    events->add_option("--limit", options->limit, "At most so many")->check(CLI::PositiveNumber)->capture_default_str();
    CLI::Option* const csv = events->add_flag("--csv", options->csv, "As lines of CSV");
    events->get_option("--json")->excludes(csv);
}

}  // namespace keldra
