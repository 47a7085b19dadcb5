#include "service/events/event_journal.h"

#include "norv/log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::milliseconds LOOK_EVERY{1000};
constexpr std::chrono::seconds FIGURES_EVERY{30};
/// Events that are written with one sync.
constexpr std::size_t BATCH = 500;
constexpr const char* NO_MEMORY = "Out of memory.";  // so short that it needs none
/// Age counts only once the time of day has gone on evenly for so long: a clock that jumps must not cost the journal.
constexpr std::int64_t TRUSTED_AFTER = std::int64_t{3600} * 1000;  // milliseconds
constexpr std::int64_t JUMP = 600;                                 // seconds

/// Tells whether the time of day can be believed.
class ClockWatch {
public:
    explicit ClockWatch(const Clock& clock) : clock_(clock) { restart(); }
    bool trusted() {
        const std::int64_t elapsed = clock_.steadyMilliseconds() - steady_;
        if (std::abs(clock_.now() - now_ - elapsed / 1000) > JUMP) restart();
        return clock_.steadyMilliseconds() - steady_ >= TRUSTED_AFTER;
    }

private:
    void restart() {
        now_ = clock_.now();
        steady_ = clock_.steadyMilliseconds();
    }
    const Clock& clock_;
    std::int64_t now_ = 0;
    std::int64_t steady_ = 0;
};

}  // namespace

EventJournal::EventJournal(EventJournalSettings settings, const Clock& clock)
    : settings_(std::move(settings)),
      clock_(clock),
      segments_(settings_.folder, settings_.segmentBytes, settings_.segments),
      figureFile_(settings_.folder / "days.json") {
    bool usable = false;
    told_ = segments_.open(usable);
    nextId_ = told_ + 1;
    if (!usable) problem_ = "The folder " + settings_.folder.string() + " cannot be made: " + errorText(errno);
    figures_ = figureFile_.load();
    thread_ = std::thread([this] { run(); });
}

EventJournal::~EventJournal() { stop(); }

void EventJournal::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void EventJournal::onEvents(std::function<void(const std::vector<Event>&)> listener) {
    const std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

std::uint64_t EventJournal::add(Event event) {
    const std::lock_guard lock(mutex_);
    if (event.time == 0) event.time = clock_.now();
    if (event.kind == EventKind::FIND) figures_.add(event.time, 0, event.count, 0), figuresChanged_ = true;
    if (event.kind == EventKind::NOT_SCANNED) figures_.add(event.time, 0, 0, event.count), figuresChanged_ = true;
    if (waiting_.size() >= settings_.queue) {
        ++lost_;
        return 0;
    }
    event.id = nextId_++;
    waiting_.push_back(std::move(event));
    changed_.notify_all();
    return waiting_.back().id;
}

bool EventJournal::onDisk(std::uint64_t id) const {
    const std::lock_guard lock(mutex_);
    return id != 0 && (waiting_.empty() || waiting_.front().id > id);
}

void EventJournal::countScanned(std::uint64_t files, std::int64_t time) {
    const std::lock_guard lock(mutex_);
    figures_.add(time == 0 ? clock_.now() : time, files, 0, 0);
    figuresChanged_ = true;
}

/// What waits is taken first: an event that is written in the meantime is then left out where it lies twice.
EventPage EventJournal::query(const EventFilter& filter, std::size_t from, std::size_t count) const {
    std::vector<Event> waiting;
    {
        const std::lock_guard lock(mutex_);
        waiting.assign(waiting_.rbegin(), waiting_.rend());
    }
    EventPage page;
    const auto take = [&](Event&& event) {
        if (!matches(event, filter)) return true;
        if (page.total >= from && page.events.size() < count) page.events.push_back(std::move(event));
        ++page.total;
        return true;
    };
    const std::uint64_t firstWaiting = waiting.empty() ? 0 : waiting.back().id;
    for (Event& event : waiting) take(std::move(event));
    segments_.forEach(
        [&](Event&& event) { return firstWaiting != 0 && event.id >= firstWaiting ? true : take(std::move(event)); });
    return page;
}

std::vector<DayFigures> EventJournal::days(std::size_t count) const {
    const std::lock_guard lock(mutex_);
    return figures_.last(clock_.now(), count);
}

std::string EventJournal::problem() const {
    const std::lock_guard lock(mutex_);
    return problem_;
}

bool EventJournal::flush(int milliseconds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return waiting_.empty(); });
}

Event EventJournal::overflow(std::uint64_t lost) const {
    return {.time = clock_.now(),
            .kind = EventKind::SERVICE,
            .severity = EventSeverity::WARNING,
            .detail = "Events could not be kept, because the disk took none.",
            .count = lost};
}

void EventJournal::run() {
    ClockWatch watch(clock_);
    auto figuresDue = std::chrono::steady_clock::now() + FIGURES_EVERY;
    std::unique_lock lock(mutex_);
    for (;;) {
        const bool failing = !problem_.empty();
        // A disk that takes nothing is tried again now and then, whatever comes in meanwhile.
        changed_.wait_for(lock, failing ? std::chrono::milliseconds(settings_.retry) : LOOK_EVERY,
                          [&] { return stopping_ || (!failing && !waiting_.empty()); });
        try {
            if (!waiting_.empty()) turn(lock);
            const bool due = stopping_ || std::chrono::steady_clock::now() >= figuresDue;
            if (figuresChanged_ && due) {
                saveFigures(lock, watch.trusted());
                figuresDue = std::chrono::steady_clock::now() + FIGURES_EVERY;
            }
        } catch (const std::exception&) {
            if (!lock.owns_lock()) lock.lock();
            problem_ = NO_MEMORY;
        }
        if (stopping_ && (waiting_.empty() || !problem_.empty())) return;
    }
}

void EventJournal::saveFigures(std::unique_lock<std::mutex>& lock, bool clockTrusted) {
    const std::string text = figures_.text();
    figuresChanged_ = false;
    lock.unlock();
    const bool saved = figureFile_.save(text) == 0;
    if (clockTrusted) segments_.dropOlderThan(clock_.now() - settings_.age);
    lock.lock();
    figuresChanged_ = figuresChanged_ || (!saved && !stopping_);
}

/// Tells and writes what waits first.
void EventJournal::turn(std::unique_lock<std::mutex>& lock) {
    const std::size_t count = std::min(waiting_.size(), BATCH);
    const std::vector<Event> batch(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(count));
    std::vector<Event> news;
    for (const Event& event : batch)
        if (event.id > told_ && !event.untold) news.push_back(event);
    told_ = std::max(told_, batch.back().id);
    const auto listener = stopping_ ? nullptr : listener_;
    lock.unlock();
    if (listener && !news.empty()) listener(news);
    std::string lines;
    for (const Event& event : batch) lines += eventToLine(event) + "\n";
    const int error = segments_.append(lines);
    lock.lock();
    if (error != 0) {
        if (problem_.empty()) NORV_LOG(NORV_LOG_ERROR, "Events cannot be written: %s", errorText(error).c_str());
        problem_ = "Events cannot be written: " + errorText(error);
        return;
    }
    problem_.clear();
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(count));
    if (lost_ > 0) {
        Event missing = overflow(std::exchange(lost_, 0));
        missing.id = nextId_++;
        waiting_.push_back(std::move(missing));
    }
    changed_.notify_all();
}

}  // namespace keldra
