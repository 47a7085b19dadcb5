#include "service/scanning/remaining_time.h"

#include <algorithm>
#include <cmath>

namespace keldra {

namespace {

/// What opening and closing a file costs beside its bytes, in bytes that are scanned meanwhile.
constexpr double FILE_WEIGHT = 64.0 * 1024;
constexpr std::int64_t LAP = 2000;        // milliseconds
constexpr std::int64_t TOO_EARLY = 3000;  // milliseconds
/// How much of a lap goes into what holds lately.
constexpr double LAP_SHARE = 0.15;
/// Milliseconds in which most of a wrong guess is corrected.
constexpr double BEND = 15000;

double work(std::uint64_t bytes, std::uint64_t files) {
    return static_cast<double>(bytes) + FILE_WEIGHT * static_cast<double>(files);
}

}  // namespace

void RemainingTime::leaveOut(std::int64_t milliseconds) {
    begun_ += milliseconds;
    lapBegun_ += milliseconds;
    shownAt_ += milliseconds;
}

/// By the speed of the whole and that of the last laps in equal parts.
double RemainingTime::wanted(std::int64_t now) const {
    const double whole = done_ / static_cast<double>(std::max<std::int64_t>(1, now - begun_));
    const double speed = lately_ > 0 ? (whole + lately_) / 2 : whole;
    return speed > 0 ? std::max(0.0, all_ - done_) / speed : 0;
}

void RemainingTime::measure(std::int64_t now, std::uint64_t bytes, std::uint64_t files, std::uint64_t allBytes,
                            std::uint64_t allFiles) {
    done_ = work(bytes, files);
    all_ = work(allBytes, allFiles);
    if (now - lapBegun_ >= LAP) {
        const double lap = (done_ - lapDone_) / static_cast<double>(now - lapBegun_);
        lately_ = lately_ > 0 ? lately_ + LAP_SHARE * (lap - lately_) : lap;
        lapBegun_ = now;
        lapDone_ = done_;
    }
    if (now - begun_ < TOO_EARLY || done_ <= 0) return;
    const double passed = static_cast<double>(now - shownAt_);
    shownAt_ = now;
    const double target = wanted(now);
    const double counted = std::max(0.0, shown_.value_or(target) - passed);
    shown_ = counted + (target - counted) * std::min(1.0, passed / BEND);
}

std::optional<std::int64_t> RemainingTime::seconds() const {
    if (!shown_) return std::nullopt;
    // What is not done takes a second at least.
    return std::max<std::int64_t>(all_ > done_ ? 1 : 0, std::int64_t{std::llround(*shown_ / 1000)});
}

}  // namespace keldra
