#include "service/events/event.h"

#include "service/base/json_object.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace keldra {

namespace {

constexpr std::array<const char*, 8> KINDS{"find",     "not_scanned", "scan",       "update",
                                           "settings", "logon",       "quarantine", "service"};
constexpr std::array<const char*, 3> SEVERITIES{"info", "warning", "alert"};

template <typename Enum, std::size_t Count>
std::optional<Enum> named(const std::array<const char*, Count>& names, std::string_view name) {
    const auto* const found = std::find(names.begin(), names.end(), name);
    return found == names.end() ? std::nullopt : std::optional(static_cast<Enum>(found - names.begin()));
}

char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

bool contains(std::string_view text, std::string_view part) {
    return std::search(text.begin(), text.end(), part.begin(), part.end(),
                       [](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

bool mentions(const Event& event, std::string_view text) {
    const std::array<std::string_view, 7> places{event.path, event.signature, event.action,     event.detail,
                                                 event.task, event.who.user,  event.who.address};
    return std::any_of(places.begin(), places.end(), [text](std::string_view place) { return contains(place, text); });
}

}  // namespace

const char* eventKindName(EventKind kind) { return KINDS.at(static_cast<std::size_t>(kind)); }
std::optional<EventKind> eventKindOf(std::string_view name) { return named<EventKind>(KINDS, name); }
const char* eventSeverityName(EventSeverity severity) { return SEVERITIES.at(static_cast<std::size_t>(severity)); }
std::optional<EventSeverity> eventSeverityOf(std::string_view name) { return named<EventSeverity>(SEVERITIES, name); }

bool matches(const Event& event, const EventFilter& filter) {
    if (filter.before != 0 && event.id >= filter.before) return false;
    if (event.severity < filter.leastSeverity || event.time < filter.since) return false;
    if (filter.until != 0 && event.time >= filter.until) return false;
    if (!filter.kinds.empty() && std::find(filter.kinds.begin(), filter.kinds.end(), event.kind) == filter.kinds.end())
        return false;
    return filter.text.empty() || mentions(event, filter.text);
}

std::string eventToLine(const Event& event) {
    JsonWriter json;
    json.add("id", event.id).add("time", event.time).add("kind", std::string(eventKindName(event.kind)));
    json.add("severity", std::string(eventSeverityName(event.severity))).add("task", event.task);
    json.add("path", event.path).add("signature", event.signature).add("action", event.action);
    json.add("detail", event.detail).add("user", event.who.user).add("address", event.who.address);
    return json.add("count", event.count).text();
}

std::optional<Event> eventFromLine(std::string_view line) {
    const JsonReader json(line);
    const auto kind = eventKindOf(json.text("kind"));
    const auto severity = eventSeverityOf(json.text("severity"));
    if (!json.valid() || !kind || !severity || json.size("id") == 0) return std::nullopt;
    return Event{.id = json.size("id"),
                 .time = json.number("time"),
                 .kind = *kind,
                 .severity = *severity,
                 .task = json.text("task"),
                 .path = json.text("path"),
                 .signature = json.text("signature"),
                 .action = json.text("action"),
                 .detail = json.text("detail"),
                 .who = {json.text("user"), json.text("address")},
                 .count = json.size("count")};
}

}  // namespace keldra
