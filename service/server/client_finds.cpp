#include "service/server/client_finds.h"

#include <utility>

namespace keldra {

namespace {

constexpr std::int64_t HOUR = std::int64_t{3600} * 1000;  // milliseconds
/// Of one client in an hour.
constexpr std::uint64_t MOST_FOUND = 100;
constexpr std::uint64_t MOST_NOT_SCANNED = 20;
constexpr std::size_t MOST_CLIENTS = 256;
constexpr const char* OTHERS = "others";

Event eventOf(const ClientReport& report, const std::optional<ShareUser>& user) {
    Event event;
    const bool found = report.result.verdict == Verdict::INFECTED;
    event.kind = found ? EventKind::FIND : EventKind::NOT_SCANNED;
    event.severity = found ? EventSeverity::ALERT : EventSeverity::WARNING;
    event.task = "client";
    event.path = report.path.empty() ? report.name : report.path;
    event.signature = report.result.signature;
    event.action = found ? "reported to the program that asked" : "";
    event.detail = report.result.detail;
    const auto say = [&event](const std::string& more) { event.detail += (event.detail.empty() ? "" : "; ") + more; };
    if (!report.content.empty()) say("SHA-256 " + report.content);
    if (user) say("share " + user->share);
    say("asked by " + report.client);
    event.who = user ? EventActor{user->user, user->address} : EventActor{report.user, report.address};
    return event;
}

}  // namespace

void ClientFinds::add(const ClientReport& report) {
    const auto user = report.path.empty() ? std::nullopt : users_.of(report.process, report.path);
    Event event = eventOf(report, user);
    const bool found = event.kind == EventKind::FIND;
    const std::string what = event.path + '\n' + report.content + '\n' + event.signature;
    const std::int64_t now = clock_.steadyMilliseconds();
    const std::lock_guard lock(mutex_);
    const std::string client = user ? user->user + '\n' + user->address : report.user + '\n' + report.address;
    const bool room = hours_.size() < MOST_CLIENTS || hours_.contains(client);
    Hour& hour = hours_[room ? client : OTHERS];
    if (hour.begun == 0 || now - hour.begun >= HOUR) {
        tellRestOf(hour);
        hour = Hour{};
        hour.begun = now;
    }
    if (hour.told.contains(what)) return;
    std::uint64_t& count = found ? hour.found : hour.notScanned;
    hour.who = event.who;
    if (++count > (found ? MOST_FOUND : MOST_NOT_SCANNED)) return;
    hour.told.insert(what);
    journal_.add(std::move(event));
}

void ClientFinds::tellRestOf(const Hour& hour) {
    const auto tell = [&](EventKind kind, std::uint64_t count, std::uint64_t most) {
        if (count <= most) return;
        Event event;
        event.kind = kind;
        event.severity = kind == EventKind::FIND ? EventSeverity::ALERT : EventSeverity::WARNING;
        event.task = "client";
        event.detail = kind == EventKind::FIND ? "Further finds of this client; the log names them."
                                               : "Further files of this client; the log names them.";
        event.who = hour.who;
        event.count = count - most;
        journal_.add(std::move(event));
    };
    tell(EventKind::FIND, hour.found, MOST_FOUND);
    tell(EventKind::NOT_SCANNED, hour.notScanned, MOST_NOT_SCANNED);
}

void ClientFinds::tellRest() {
    const std::int64_t now = clock_.steadyMilliseconds();
    const std::lock_guard lock(mutex_);
    std::erase_if(hours_, [&](const auto& entry) {
        const bool over = now - entry.second.begun >= HOUR;
        if (over) tellRestOf(entry.second);
        return over;
    });
}

}  // namespace keldra
