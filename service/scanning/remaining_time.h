#pragma once

#include <cstdint>
#include <optional>

namespace keldra {

/// Guesses how long something takes that is measured in bytes and files, so that the guess can be shown: it counts down
/// with the clock and bends to what is measured, but does not jump. Times are milliseconds of a steady clock, without
/// those in which nothing was to be done.
class RemainingTime {
public:
    explicit RemainingTime(std::int64_t now) : begun_(now), lapBegun_(now), shownAt_(now) {}

    /// What is done of what there is to do; a file weighs as much as its bytes and a fixed share for opening it.
    void measure(std::int64_t now, std::uint64_t bytes, std::uint64_t files, std::uint64_t allBytes,
                 std::uint64_t allFiles);
    /// Time that passed without work, such as a pause.
    void leaveOut(std::int64_t milliseconds);
    /// Seconds; nothing while there is too little to go by.
    std::optional<std::int64_t> seconds() const;

private:
    double wanted(std::int64_t now) const;

    std::int64_t begun_;
    std::int64_t lapBegun_;
    double lapDone_ = 0;
    double lately_ = 0;  ///< work a millisecond, of the last laps
    double done_ = 0;
    double all_ = 0;
    std::int64_t shownAt_;
    std::optional<double> shown_;  ///< milliseconds
};

}  // namespace keldra
