#pragma once

#include "service/base/clock.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stop_token>
#include <string>

namespace keldra {

/// The time of day within which a scan works, local; it may reach over midnight.
struct ScanWindow {
    std::string begin;  ///< "hh:mm" or "hh:mm:ss"; both empty: always
    std::string end;

    /// Whether this moment (seconds since the epoch) lies within.
    bool holds(std::int64_t now) const;
};

/// Holds a scan up between two files: because somebody asked for it, or outside of its window.
class ScanPause {
public:
    enum class Why { RUNS, ASKED, WINDOW };

    ScanPause(ScanWindow window, const Clock& clock) : window_(std::move(window)), clock_(clock) {}

    void ask(bool pause);
    /// Returns when the scan may go on, or a stop was asked for.
    void wait(const std::stop_token& stop);
    Why why() const;
    /// Milliseconds during which nothing was done, up to now.
    std::int64_t pausedFor() const;

private:
    Why reason() const;
    void note();

    const ScanWindow window_;
    const Clock& clock_;
    mutable std::mutex mutex_;
    std::condition_variable_any changed_;
    bool asked_ = false;
    bool paused_ = false;
    std::int64_t since_ = 0;
    std::int64_t passed_ = 0;
};

}  // namespace keldra
