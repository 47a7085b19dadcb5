#pragma once

#include <cstdint>

namespace keldra {

/// Where the service takes its time from; a test drives its own.
class Clock {
public:
    virtual ~Clock() = default;
    /// The time of day, seconds since the epoch.
    virtual std::int64_t now() const = 0;
    /// Milliseconds of a clock that never goes back, for measuring how long something took.
    virtual std::int64_t steadyMilliseconds() const = 0;
};

/// The machine's own clock.
const Clock& systemClock();

}  // namespace keldra
