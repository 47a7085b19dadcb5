#include "service/events/event.h"

#include "norv/json_text.h"
#include "norv/json_value.h"

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
    JsonText json;
    json.object([&] {
        json.member("id", event.id).member("time", event.time).member("kind", eventKindName(event.kind));
        json.member("severity", eventSeverityName(event.severity)).member("task", event.task);
        json.member("path", event.path).member("signature", event.signature).member("action", event.action);
        json.member("detail", event.detail).member("user", event.who.user).member("address", event.who.address);
        json.member("count", event.count);
        if (!event.record.empty()) json.member("record", event.record);
    });
    return json.text();
}

std::optional<Event> eventFromLine(std::string_view line) {
    const JsonDocument json = parseJson(line);
    const auto kind = eventKindOf(textOf(json, "kind"));
    const auto severity = eventSeverityOf(textOf(json, "severity"));
    if (!json.IsObject() || !kind || !severity || sizeOf(json, "id") == 0) return std::nullopt;
    return Event{.id = sizeOf(json, "id"),
                 .time = numberOf(json, "time"),
                 .kind = *kind,
                 .severity = *severity,
                 .task = textOf(json, "task"),
                 .path = textOf(json, "path"),
                 .signature = textOf(json, "signature"),
                 .action = textOf(json, "action"),
                 .detail = textOf(json, "detail"),
                 .who = {textOf(json, "user"), textOf(json, "address")},
                 .count = sizeOf(json, "count"),
                 .record = textOf(json, "record")};
}

}  // namespace keldra
