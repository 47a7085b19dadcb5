#include "service/notices/notice_message.h"

#include "norv/json_text.h"
#include "norv/service_text.h"
#include "norv/time_text.h"

#include <nettle/base64.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <utility>

namespace keldra {

namespace {

constexpr std::size_t MOST_EVENTS = 50;

/// Bytes of the UTF-8 character that begins here; 0 when none does.
std::size_t characterAt(const std::string& text, std::size_t at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) return byte >= ' ' && byte != 0x7F ? 1 : 0;
    const std::size_t length = byte >= 0xF0 && byte < 0xF5 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC2 ? 2 : 0;
    if (length == 0 || byte >= 0xF5 || at + length > text.size()) return 0;
    const auto continues = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U; };
    const auto begin = text.begin() + static_cast<std::ptrdiff_t>(at);
    // U+0080 to U+009F are control characters as well.
    if (byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0) return 0;
    return std::all_of(begin + 1, begin + static_cast<std::ptrdiff_t>(length), continues) ? length : 0;
}

std::string lineOf(const Event& event, const Words& words) {
    const std::string kind = eventKindName(event.kind);
    std::string line = timeText(event.time, "%F %T") + "  " + eventKindText(words, kind);
    for (const std::string& part : {eventTaskText(words, kind, event.task), event.path, event.signature,
                                    serviceText(words, event.action), eventDetailText(words, kind, event.detail)})
        if (!part.empty()) line += "  " + readable(part);
    if (event.count != 1) line += "  (" + words.counted(event.count, "{n} time", "{n} times") + ")";
    return line + "\n";
}

/// How many of which kind: "3 finds, 1 update".
std::string sumOf(const NoticeBundle& bundle, const Words& words) {
    static const std::map<EventKind, std::pair<const char*, const char*>> NAMES{
        {EventKind::FIND, {"{n} find", "{n} finds"}},
        {EventKind::NOT_SCANNED, {"{n} file not scanned", "{n} files not scanned"}},
        {EventKind::SCAN, {"{n} scan", "{n} scans"}},
        {EventKind::UPDATE, {"{n} update", "{n} updates"}},
        {EventKind::SETTINGS, {"{n} change of settings", "{n} changes of settings"}},
        {EventKind::LOGON, {"{n} log-on event", "{n} log-on events"}},
        {EventKind::QUARANTINE, {"{n} quarantine event", "{n} quarantine events"}},
        {EventKind::SERVICE, {"{n} service event", "{n} service events"}}};
    std::map<EventKind, std::uint64_t> numbers;
    for (const Event& event : bundle.events)
        numbers[event.kind] += event.kind == EventKind::FIND || event.kind == EventKind::NOT_SCANNED ? event.count : 1;
    std::string sum;
    const auto add = [&](std::uint64_t number, const char* one, const char* many) {
        sum += (sum.empty() ? "" : ", ") + words.counted(number, one, many);
    };
    for (const auto& [kind, number] : numbers) add(number, NAMES.at(kind).first, NAMES.at(kind).second);
    if (bundle.further > 0) add(bundle.further, "{n} more event", "{n} more events");
    return sum;
}

std::string verdictText(const NoticeTexts& said, const Words& words) {
    std::string text = words.text(said.verdict == "protected"   ? "This server is protected."
                                  : said.verdict == "attention" ? "Something on this server needs your attention."
                                                                : "This server is not protected.");
    for (const NoticeReason& reason : said.reasons) {
        text += "\n- " + serviceText(words, reason.text);
        for (const std::string& more : {countText(words, reason.count, reason.unit),
                                        readable(reasonDetailText(words, reason.code, reason.detail))})
            if (!more.empty()) text += " (" + more + ")";
    }
    return text + "\n";
}

std::string dayText(const DayFigures& day, const Words& words) {
    std::string text = day.day + words.text(": ") + words.counted(day.scanned, "{n} file scanned", "{n} files scanned");
    text += ", " + words.counted(day.found, "{n} find", "{n} finds");
    return text + ", " + words.counted(day.failed, "{n} file not scanned", "{n} files not scanned") + "\n";
}

std::string base64(const std::string& text) {
    std::string encoded(BASE64_ENCODE_RAW_LENGTH(text.size()), '\0');
    ::nettle_base64_encode_raw(encoded.data(), text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
    return encoded;
}

/// A head line's text; what is not ASCII is encoded, in words of the length that mail allows.
std::string headText(const std::string& text) {
    constexpr std::size_t BYTES_IN_A_WORD = 45;
    if (std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; })) return text;
    std::string head;
    std::string word;
    const auto close = [&] { head += (head.empty() ? "=?UTF-8?B?" : "\r\n =?UTF-8?B?") + base64(word) + "?="; };
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = std::max<std::size_t>(1, characterAt(text, at));
        if (word.size() + length > BYTES_IN_A_WORD) close(), word.clear();
        word.append(text, at, length);
        at += length;
    }
    close();
    return head;
}

}  // namespace

std::string readable(const std::string& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = characterAt(text, at);
        if (length > 0) {
            result.append(text, at, length);
            at += length;
            continue;
        }
        std::array<char, 8> escaped{};
        std::snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned char>(text[at++]));
        result += escaped.data();
    }
    return result;
}

void NoticeBundle::add(const Event& event) {
    if (events.size() < MOST_EVENTS)
        events.push_back(event);
    else
        further += event.count;
}

NoticeMessage messageOf(const NoticeBundle& bundle, const std::string& host, const NoticeTexts& said,
                        const Words& words) {
    NoticeMessage message;
    message.host = host;
    message.verdict = said.verdict;
    message.events = bundle.events;
    for (const Event& event : bundle.events) message.severity = std::max(message.severity, event.severity);
    message.subject =
        Words::filled(Words::filled(words.text("Keldra on {host}: {events}"), "events", sumOf(bundle, words)), "host",
                      readable(host));
    for (const Event& event : bundle.events) message.text += lineOf(event, words);
    if (bundle.further > 0) message.text += words.counted(bundle.further, "{n} more event", "{n} more events") + "\n";
    message.text += "\n" + verdictText(said, words);
    return message;
}

NoticeMessage reportOf(const std::string& host, const NoticeTexts& said, const Words& words) {
    NoticeMessage message;
    message.host = host;
    message.verdict = said.verdict;
    message.subject = Words::filled(words.text("Keldra on {host}: report of the week"), "host", readable(host));
    message.text = verdictText(said, words) + "\n";
    for (const DayFigures& day : said.week) message.text += dayText(day, words);
    return message;
}

std::string mailText(const NoticeMessage& message, const std::string& from, const std::vector<std::string>& to,
                     std::int64_t now) {
    std::string mail = "Date: " + timeText(now, "%a, %d %b %Y %H:%M:%S %z") + "\r\nFrom: " + from + "\r\nTo: ";
    for (std::size_t i = 0; i < to.size(); ++i) mail += (i == 0 ? "" : ",\r\n ") + to[i];
    mail += "\r\nSubject: " + headText(message.subject) +
            "\r\nAuto-Submitted: auto-generated\r\nMIME-Version: 1.0\r\n"
            "Content-Type: text/plain; charset=UTF-8\r\nContent-Transfer-Encoding: base64\r\n\r\n";
    const std::string body = base64(message.text);
    constexpr std::size_t LINE = 76;
    for (std::size_t at = 0; at < body.size(); at += LINE) mail += body.substr(at, LINE) + "\r\n";
    return mail;
}

std::string hookText(const NoticeMessage& message) {
    JsonText json;
    json.object([&] {
        json.member("host", readable(message.host)).member("verdict", message.verdict);
        json.member("severity", eventSeverityName(message.severity));
        json.member("subject", message.subject).member("text", message.text).name("events").array([&] {
            for (const Event& event : message.events) {
                json.object([&] {
                    json.member("id", event.id).member("time", event.time).member("kind", eventKindName(event.kind));
                    json.member("severity", eventSeverityName(event.severity)).member("task", event.task);
                    json.member("path", readable(event.path)).member("signature", readable(event.signature));
                    json.member("action", event.action).member("detail", readable(event.detail));
                    json.member("count", event.count);
                });
            }
        });
    });
    return json.text();
}

std::string gotifyText(const NoticeMessage& message) {
    constexpr std::array<int, 3> PRIORITIES{2, 5, 8};
    JsonText json;
    json.object([&] {
        json.member("title", message.subject).member("message", message.text);
        json.member("priority", PRIORITIES.at(static_cast<std::size_t>(message.severity)));
    });
    return json.text();
}

}  // namespace keldra
