#include "service/server/happenings.h"

#include "norv/counted.h"
#include "service/scanning/scan_events.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

/// Reports of one scan that become an event each.
constexpr std::uint64_t MOST_FOUND = 1000;
constexpr std::uint64_t MOST_NOT_SCANNED = 200;
constexpr std::size_t MOST_TOLD_OF = 10000;
constexpr std::size_t MOST_REMOVED = 200;
constexpr std::int64_t TOLD_EVERY = std::int64_t{3600} * 1000;  // milliseconds
/// Events that are looked through for the last updates.
constexpr std::size_t UPDATES_LOOKED_AT = 200;

}  // namespace

Happenings::Happenings(EventJournal& journal, const Clock& clock) : journal_(journal), clock_(clock) {
    for (const Event& event : journal_.query({.kinds = {EventKind::UPDATE}}, 0, UPDATES_LOOKED_AT).events) {
        const bool good = event.severity == EventSeverity::INFO;
        if (updates_.message.empty()) updates_.failed = !good, updates_.message = event.detail;
        if (good && updates_.succeeded == 0) updates_.succeeded = event.time;
    }
}

void Happenings::found(const ScanStatus& scan, const ScanFind& find) {
    {
        const std::lock_guard lock(mutex_);
        Told& told = told_[scan.id];
        std::uint64_t& count = find.infected ? told.found : told.notScanned;
        if (++count > (find.infected ? MOST_FOUND : MOST_NOT_SCANNED)) return;
    }
    journal_.add(eventOfFind(find, scan));
}

void Happenings::foundByRealtime(const std::string& path, const std::string& signature, const ActionOutcome& done) {
    if (!done.done || done.performed == Action::PASS) {
        const std::int64_t now = clock_.steadyMilliseconds();
        const std::lock_guard lock(mutex_);
        if (toldOf_.size() >= MOST_TOLD_OF) toldOf_.clear();
        const auto [told, isNew] = toldOf_.try_emplace(path + '\n' + signature, now);
        if (!isNew && now - told->second < TOLD_EVERY) return;
        told->second = now;
    }
    Event event;
    event.kind = EventKind::FIND;
    event.severity = EventSeverity::ALERT;
    event.task = "realtime";
    event.path = path;
    event.signature = signature;
    event.action = done.text;
    journal_.add(std::move(event));
}

void Happenings::scheduledScan(const ScanStart& start) {
    journal_.add({.kind = EventKind::SCAN,
                  .severity = start.started ? EventSeverity::INFO : EventSeverity::WARNING,
                  .task = scanKindName(ScanKind::SCHEDULED),
                  .action = start.started ? "started" : "not started",
                  .detail = start.message});
}

void Happenings::scanEnded(const ScanStatus& scan) {
    Told told;
    {
        const std::lock_guard lock(mutex_);
        told = std::exchange(told_[scan.id], Told{});
        told_.erase(scan.id);
    }
    if (told.found > MOST_FOUND) journal_.add(eventOfFurther(EventKind::FIND, scan, told.found - MOST_FOUND));
    if (told.notScanned > MOST_NOT_SCANNED)
        journal_.add(eventOfFurther(EventKind::NOT_SCANNED, scan, told.notScanned - MOST_NOT_SCANNED));
    journal_.countScanned(scan.scanned);
}

void Happenings::updateEnded(const UpdateStatus& update) {
    {
        const std::lock_guard lock(mutex_);
        updates_.failed = !update.succeeded;
        updates_.message = update.message;
        if (update.succeeded) updates_.succeeded = update.ended;
    }
    Event event;
    event.kind = EventKind::UPDATE;
    event.severity = update.succeeded ? EventSeverity::INFO : EventSeverity::WARNING;
    event.task = update.scheduled ? "scheduled" : "manual";
    event.action = !update.succeeded ? "failed" : update.installed ? "installed" : "nothing new";
    event.detail = update.message;
    journal_.add(std::move(event));
}

void Happenings::removalAnnounced(std::size_t count, std::int64_t seconds) {
    journal_.add({.kind = EventKind::QUARANTINE,
                  .severity = EventSeverity::WARNING,
                  .action = "removal announced",
                  .detail = "In " + counted(static_cast<std::uint64_t>(seconds / 86400), "day", "days") + ".",
                  .count = count});
}

void Happenings::removed(const std::vector<QuarantineItem>& items) {
    for (std::size_t i = 0; i < std::min(items.size(), MOST_REMOVED); ++i)
        journal_.add({.kind = EventKind::QUARANTINE,
                      .severity = EventSeverity::WARNING,
                      .path = items[i].path,
                      .signature = items[i].signature,
                      .action = "removed, as announced"});
    if (items.size() > MOST_REMOVED)
        journal_.add({.kind = EventKind::QUARANTINE,
                      .severity = EventSeverity::WARNING,
                      .action = "removed, as announced",
                      .detail = "Further files.",
                      .count = items.size() - MOST_REMOVED});
}

UpdateMemory Happenings::updates() const {
    const std::lock_guard lock(mutex_);
    return updates_;
}

}  // namespace keldra
