#include "norv/protocol/events.h"
#include "service/events/event_journal.h"
#include "service/server/handlers.h"

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
bool readFilter(const protocol::ListEvents& wanted, EventFilter& filter, IPCMessage& reply) {
    std::istringstream kinds(wanted.kinds);
    for (std::string name; std::getline(kinds, name, ',');) {
        const auto kind = eventKindOf(name);
        if (!kind) return refuse("There is no such kind of event.", reply);
        filter.kinds.push_back(*kind);
    }
    const auto least = wanted.severity.empty() ? EventSeverity::INFO : eventSeverityOf(wanted.severity);
    if (!least) return refuse("There is no such severity.", reply);
    filter.leastSeverity = *least;
    filter.text = wanted.text;
    filter.since = wanted.since;
    filter.until = wanted.until;
    filter.before = wanted.before;
    return true;
}

protocol::Event wireForm(const Event& event) {
    return {.id = event.id,
            .time = event.time,
            .kind = eventKindName(event.kind),
            .severity = eventSeverityName(event.severity),
            .task = event.task,
            .path = event.path,
            .signature = event.signature,
            .action = event.action,
            .detail = event.detail,
            .user = event.who.user,
            .address = event.who.address,
            .count = event.count};
}

}  // namespace

bool listEvents(EventJournal& events, const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::ListEvents>(request);
    EventFilter filter;
    if (!readFilter(wanted, filter, reply)) return false;
    const std::size_t count = between(wanted.count, USUAL_EVENTS, MOST_EVENTS);
    const EventPage page = events.query(filter, wanted.from, count);
    protocol::EventList list{.total = page.total, .events = {}};
    for (const Event& event : page.events) list.events.push_back(wireForm(event));
    protocol::cutToReply(list.events);
    write(reply, list);
    return true;
}

bool getDailyFigures(EventJournal& events, const IPCMessage& request, IPCMessage& reply) {
    const std::size_t days = between(protocol::read<protocol::GetDailyFigures>(request).days, USUAL_DAYS, MOST_DAYS);
    protocol::DailyFigures reported;
    for (const DayFigures& day : events.days(days))
        reported.figures.push_back({day.day, day.scanned, day.found, day.failed});
    write(reply, reported);
    return true;
}

}  // namespace keldra::handlers
