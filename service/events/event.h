#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// What sort of thing happened.
enum class EventKind : std::uint8_t {
    FIND,         ///< something was found in a file; `action` says what was done with it
    NOT_SCANNED,  ///< a file was skipped or not fully scanned; `detail` says why
    SCAN,         ///< a scan began or ended
    UPDATE,       ///< an update of the signatures ended
    SETTINGS,     ///< settings were saved; `detail` says which
    LOGON,        ///< a log-on, a refused one, a log-off, a session that was ended
    QUARANTINE,   ///< a file was restored or deleted, a content trusted or trusted no longer
    SERVICE       ///< the service started or ended, real-time scan on or off, a fault of its own
};

enum class EventSeverity : std::uint8_t { INFO, WARNING, ALERT };

/// Who asked for it; both empty for what the service does by itself.
struct EventActor {
    std::string user{};
    std::string address{};  ///< of the browser; "local" for the command line
};

/// One thing that happened.
struct Event {
    std::uint64_t id = 0;   ///< given by the journal; grows
    std::int64_t time = 0;  ///< seconds since the epoch; 0: now
    EventKind kind = EventKind::SERVICE;
    EventSeverity severity = EventSeverity::INFO;
    std::string task{};       ///< "manual", "scheduled", "path", "realtime", or the id of a scan behind a blank
    std::string path{};       ///< of the file, any bytes
    std::string signature{};  ///< what was found
    std::string action{};     ///< what was done, a few English words
    std::string detail{};     ///< what else there is to say, English
    EventActor who{};
    std::uint64_t count = 1;  ///< of how many such things it tells
    std::string record{};     ///< JSON: what the task itself keeps of it; with one it outlives the events around it
    bool untold = false;      ///< no news: nobody is notified; not kept
};

/// Which events are wanted. What is left empty does not restrict.
struct EventFilter {
    std::vector<EventKind> kinds{};
    EventSeverity leastSeverity = EventSeverity::INFO;
    std::string text{};      ///< part of path, signature, action, detail, task, user or address; ASCII case is ignored
    std::int64_t since = 0;  ///< seconds since the epoch, included; 0: from the beginning
    std::int64_t until = 0;  ///< seconds since the epoch, left out; 0: to the end
    std::uint64_t before = 0;  ///< only events with a smaller id: what comes in meanwhile moves no page; 0: all
};

/// "find", "not_scanned", "scan", "update", "settings", "logon", "quarantine" or "service".
const char* eventKindName(EventKind kind);
std::optional<EventKind> eventKindOf(std::string_view name);
/// "info", "warning" or "alert".
const char* eventSeverityName(EventSeverity severity);
std::optional<EventSeverity> eventSeverityOf(std::string_view name);

bool matches(const Event& event, const EventFilter& filter);

/// One line of JSON with lower-case names, without the line's end.
std::string eventToLine(const Event& event);
/// Nothing when the line is no event.
std::optional<Event> eventFromLine(std::string_view line);

}  // namespace keldra
