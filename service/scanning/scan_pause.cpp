#include "service/scanning/scan_pause.h"

#include "norv/time_text.h"

#include <chrono>

namespace keldra {

namespace {

/// How often the time of day is looked at.
constexpr std::chrono::seconds LOOK{1};

}  // namespace

/// Times of this form are in the order of their texts.
bool ScanWindow::holds(std::int64_t now) const {
    if (begin == end) return true;
    const std::string time = timeText(now, "%T");
    const bool overMidnight = begin > end;
    return overMidnight ? time >= begin || time < end : time >= begin && time < end;
}

ScanPause::Why ScanPause::reason() const {
    if (asked_) return Why::ASKED;
    return window_.holds(clock_.now()) ? Why::RUNS : Why::WINDOW;
}

void ScanPause::note() {
    const bool paused = reason() != Why::RUNS;
    const std::int64_t now = clock_.steadyMilliseconds();
    if (paused && !paused_) since_ = now;
    if (!paused && paused_) passed_ += now - since_;
    paused_ = paused;
}

void ScanPause::ask(bool pause) {
    const std::lock_guard lock(mutex_);
    asked_ = pause;
    note();
    changed_.notify_all();
}

void ScanPause::wait(const std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    for (note(); paused_ && !stop.stop_requested(); note())
        changed_.wait_for(lock, stop, LOOK, [this] { return reason() == Why::RUNS; });
}

ScanPause::Why ScanPause::why() const {
    const std::lock_guard lock(mutex_);
    return reason();
}

std::int64_t ScanPause::pausedFor() const {
    const std::lock_guard lock(mutex_);
    return passed_ + (paused_ ? clock_.steadyMilliseconds() - since_ : 0);
}

}  // namespace keldra
