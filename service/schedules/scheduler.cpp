#include "service/schedules/scheduler.h"

#include "norv/crypto.h"
#include "norv/json_text.h"
#include "norv/json_value.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/schedules/schedule.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <ctime>
#include <exception>
#include <utility>
#include <vector>

namespace keldra {

namespace {

constexpr int64_t LONGEST_WAIT = 30;  // seconds
/// A clock that is set back by less does not run again what just ran; all beyond it was noted by a clock that was
/// wrong.
constexpr int64_t SMALL_STEP = 7200;         // seconds
constexpr int64_t SMALL_STEP_HOURLY = 1800;  // seconds
/// How often a run is started that the service's end cuts off each time.
constexpr int64_t MOST_TRIES = 3;
constexpr std::size_t STATE_FILE_LIMIT = std::size_t{1} << 16U;

uint32_t randomSecondOfHour() {
    std::vector<unsigned char> bytes;
    if (!getRandomBytes(2, bytes) || bytes.size() < 2) return 0;
    return (bytes[0] * 256U + bytes[1]) % 3600U;
}

std::string fingerprintOf(const NORVScheduledScanConfig& scan) {
    return "scan " + std::to_string(scan.frequency) + ' ' + scan.time + ' ' + std::to_string(scan.weekDay) + ' ' +
           std::to_string(scan.monthDay);
}

std::string fingerprintOf(const NORVScheduledAUConfig& update, bool randomized) {
    return "update " + std::to_string(update.kind) + ' ' + std::to_string(update.period) + ' ' + update.time + ' ' +
           std::to_string(update.weekDay) + (randomized ? " randomized" : "");
}

/// An instant from the file, which may hold anything.
int64_t timeOf(const JsonValue& object, const char* name) {
    return std::clamp<int64_t>(numberOf(object, name), 0, int64_t{1} << 40U);
}

/// The schedules outlive a start that goes wrong, such as for want of memory or threads.
bool startSafely(const std::function<bool()>& starter) {
    try {
        return starter && starter();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "A scheduled start failed: %s", error.what());
        return false;
    }
}

}  // namespace

Scheduler::Scheduler(std::filesystem::path stateFile, const Clock& clock, Hooks hooks)
    : stateFile_(std::move(stateFile)), clock_(clock), hooks_(std::move(hooks)) {
    load();
}

Scheduler::~Scheduler() { stop(); }

void Scheduler::configure(const ScheduleSettings& settings) {
    {
        const std::lock_guard lock(mutex_);
        settings_ = settings;
        plan();
    }
    wake_.notify_all();
}

void Scheduler::start() {
    if (!thread_.joinable()) thread_ = std::thread([this] { loop(); });
}

void Scheduler::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (!thread_.joinable()) return;
    thread_.join();
    noteEnd(scan_, hooks_.scanEnded);
    noteEnd(update_, hooks_.updateEnded);
}

void Scheduler::tick() {
    tzset();  // notices a new time zone of the machine
    try {
        {
            const std::lock_guard lock(mutex_);
            plan();
        }
        noteEnd(scan_, hooks_.scanEnded);
        noteEnd(update_, hooks_.updateEnded);
        runDue(scan_, hooks_.startScan, "scan");
        runDue(update_, hooks_.startUpdate, "update");
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The schedules cannot be followed for now: %s", error.what());
    }
}

std::optional<int64_t> Scheduler::nextScan() const {
    const std::lock_guard lock(shownMutex_);
    return shown_.nextScan;
}

std::optional<int64_t> Scheduler::nextUpdate() const {
    const std::lock_guard lock(shownMutex_);
    return shown_.nextUpdate;
}

int64_t Scheduler::lastScan() const {
    const std::lock_guard lock(shownMutex_);
    return shown_.lastScan;
}

int64_t Scheduler::lastUpdate() const {
    const std::lock_guard lock(shownMutex_);
    return shown_.lastUpdate;
}

void Scheduler::plan() {
    const int64_t now = clock_.now();
    const bool hourly = settings_.update.kind == NORVScheduledAUConfig::HOURLY;
    const bool newScan = adopt(scan_, fingerprintOf(settings_.scan), now, SMALL_STEP);
    const bool newUpdate = adopt(update_, fingerprintOf(settings_.update, settings_.randomizedUpdate), now,
                                 hourly ? SMALL_STEP_HOURLY : SMALL_STEP);
    setSlot(scan_, keldra::nextScan(settings_.scan, scan_.considered), false);
    setSlot(update_, keldra::nextUpdate(settings_.update, update_.anchor, update_.considered),
            settings_.randomizedUpdate);
    show();
    if (newScan || newUpdate) save();
}

/// True when the track changed in what the file keeps.
bool Scheduler::adopt(Track& track, std::string fingerprint, int64_t now, int64_t tolerance) {
    const bool differs = track.fingerprint != fingerprint;
    // A clock that was ahead when runs were noted would keep them from coming again.
    const bool fromTheFuture = track.considered > now + tolerance;
    if (!differs && !fromTheFuture) return false;
    track.fingerprint = std::move(fingerprint);
    track.considered = now;
    if (track.anchor > now) track.anchor = track.before <= now ? track.before : 0;
    if (differs) track.underWay = track.cut = false;
    return true;
}

void Scheduler::setSlot(Track& track, std::optional<int64_t> slot, bool randomized) const {
    if (track.slot == slot && track.next.has_value() == slot.has_value()) return;
    track.slot = slot;
    track.next = slot;
    if (slot && randomized) *track.next += hooks_.randomSecond ? hooks_.randomSecond() : randomSecondOfHour();
}

/// Notes what is due as dealt with, on disk, before it is started: a crash in it must not start it over and over. To be
/// called under the lock; false when nothing is due.
bool Scheduler::takeDue(Track& track, const char* what) {
    const int64_t now = clock_.now();
    const bool due = track.next && *track.next <= now;
    const bool again = track.cut && track.next && track.tries < MOST_TRIES;
    track.cut = false;
    if (!due && !again) return false;
    if (again) {
        NORV_LOG(NORV_LOG_WARNING, "The scheduled %s was cut off by the end of the service and is begun again", what);
    } else if (now - *track.next > 2 * LONGEST_WAIT) {
        NORV_LOG(NORV_LOG_INFO, "The scheduled %s was missed by %" PRId64 " seconds and is made up now", what,
                 now - *track.next);
    }
    if (due) {
        track.before = track.anchor;
        track.anchor = *track.slot;
        track.considered = now;
    }
    track.tries = again ? track.tries + 1 : 1;
    track.underWay = true;
    save();
    return true;
}

void Scheduler::runDue(Track& track, const Starter& starter, const char* what) {
    {
        const std::lock_guard lock(mutex_);
        if (!takeDue(track, what)) return;
    }
    const bool started = startSafely(starter);
    if (!started) NORV_LOG(NORV_LOG_WARNING, "The scheduled %s was skipped: it could not be started", what);
    const std::lock_guard lock(mutex_);
    if (started) track.started = clock_.now();
    track.underWay = started;
    plan();
    save();
}

void Scheduler::noteEnd(Track& track, const std::function<bool()>& ended) {
    {
        const std::lock_guard lock(mutex_);
        if (!track.underWay || track.cut) return;
    }
    if (ended && !ended()) return;
    const std::lock_guard lock(mutex_);
    track.underWay = false;
    track.tries = 0;
    save();
}

void Scheduler::load() {
    int error = 0;
    const auto text = readFile(stateFile_, STATE_FILE_LIMIT, error);
    if (!text) return;
    const JsonDocument root = parseJson(*text);
    if (!root.IsObject()) {
        NORV_LOG(NORV_LOG_WARNING, "%s is not readable, the schedules start afresh", stateFile_.c_str());
        return;
    }
    for (const auto& [name, track] : {std::pair{"scan", &scan_}, std::pair{"update", &update_}}) {
        const auto member = root.FindMember(name);
        if (member == root.MemberEnd() || !member->value.IsObject()) continue;
        track->fingerprint = textOf(member->value, "schedule");
        track->considered = timeOf(member->value, "considered");
        track->anchor = timeOf(member->value, "planned");
        track->before = timeOf(member->value, "before");
        track->started = timeOf(member->value, "started");
        const bool noted = member->value.HasMember("underWay");
        track->underWay = track->cut =
            noted ? flagOf(member->value, "underWay") : track == &scan_ && hooks_.scanWasCut && hooks_.scanWasCut();
        track->tries = timeOf(member->value, "tries");
    }
    show();
}

/// Whoever asks does not wait for the disk.
void Scheduler::show() {
    const std::lock_guard lock(shownMutex_);
    shown_ = {scan_.next, update_.next, scan_.started, update_.started};
}

void Scheduler::save() const {
    JsonText file;
    file.object([&] {
        for (const auto& [name, track] : {std::pair{"scan", &scan_}, std::pair{"update", &update_}})
            file.name(name).object([&file, track = track] {
                file.member("schedule", track->fingerprint)
                    .member("considered", track->considered)
                    .member("planned", track->anchor)
                    .member("before", track->before)
                    .member("started", track->started)
                    .member("underWay", track->underWay)
                    .member("tries", track->tries);
            });
    });
    const WriteResult result = writeFileAtomically(stateFile_, file.text(), 0600);
    if (!result) NORV_LOG(NORV_LOG_ERROR, "Cannot write %s: %s", stateFile_.c_str(), errorText(result.error).c_str());
}

void Scheduler::loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        lock.unlock();
        tick();
        lock.lock();
        if (!stopping_) wake_.wait_for(lock, std::chrono::seconds(secondsToWait()));
    }
}

int64_t Scheduler::secondsToWait() const {
    int64_t wait = LONGEST_WAIT;
    for (const Track* track : {&scan_, &update_})
        if (track->next) wait = std::min(wait, *track->next - clock_.now());
    return std::max<int64_t>(wait, 1);
}

}  // namespace keldra
