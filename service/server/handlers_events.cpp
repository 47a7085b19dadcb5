#include "service/base/json_text.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

#include <algorithm>
#include <sstream>
#include <string>

namespace keldra::handlers {

namespace {

constexpr std::size_t USUAL_EVENTS = 100;
constexpr std::size_t MOST_EVENTS = 1000;
constexpr std::size_t USUAL_DAYS = 30;
constexpr std::size_t MOST_DAYS = 400;

std::size_t between(std::size_t number, std::size_t usual, std::size_t most) {
    return number == 0 ? usual : std::min(number, most);
}

/// False, with `Message`, for a name that does not exist: what is asked for wrongly must not look like nothing found.
bool readFilter(const IPCMessage& request, EventFilter& filter, IPCMessage& reply) {
    std::istringstream kinds(request.value<std::string>("Kinds"));
    for (std::string name; std::getline(kinds, name, ',');) {
        const auto kind = eventKindOf(name);
        if (!kind) return reply.addParam("Message", "There is no such kind of event."), false;
        filter.kinds.push_back(*kind);
    }
    const auto severity = request.value<std::string>("Severity");
    const auto least = severity.empty() ? EventSeverity::INFO : eventSeverityOf(severity);
    if (!least) return reply.addParam("Message", "There is no such severity."), false;
    filter.leastSeverity = *least;
    filter.text = request.value<std::string>("Text");
    filter.since = request.value<std::int64_t>("Since");
    filter.until = request.value<std::int64_t>("Until");
    filter.before = request.value<std::uint64_t>("Before");
    return true;
}

void writeEvent(JsonText& json, const Event& event) {
    json.object([&] {
        json.member("id", event.id).member("time", event.time).member("kind", eventKindName(event.kind));
        json.member("severity", eventSeverityName(event.severity)).member("task", event.task);
        json.member("path", event.path).member("signature", event.signature).member("action", event.action);
        json.member("detail", event.detail).member("user", event.who.user).member("address", event.who.address);
        json.member("count", event.count);
    });
}

}  // namespace

bool listEvents(Service& service, const IPCMessage& request, IPCMessage& reply) {
    EventFilter filter;
    if (!readFilter(request, filter, reply)) return false;
    const std::size_t count = between(request.value<std::size_t>("Count"), USUAL_EVENTS, MOST_EVENTS);
    const EventPage page = service.events().query(filter, request.value<std::size_t>("From"), count);
    JsonText json;
    json.array([&] {
        for (auto event = page.events.begin(); event != page.events.end() && !json.full(); ++event)
            writeEvent(json, *event);
    });
    reply.addParam("Total", page.total);
    reply.addParam("Events", json.text());
    return true;
}

bool getDailyFigures(Service& service, const IPCMessage& request, IPCMessage& reply) {
    JsonText json;
    json.array([&] {
        const std::size_t days = between(request.value<std::size_t>("Days"), USUAL_DAYS, MOST_DAYS);
        for (const DayFigures& day : service.events().days(days)) {
            json.object([&] {
                json.member("day", day.day).member("scanned", day.scanned);
                json.member("found", day.found).member("failed", day.failed);
            });
        }
    });
    reply.addParam("Figures", json.text());
    return true;
}

}  // namespace keldra::handlers
