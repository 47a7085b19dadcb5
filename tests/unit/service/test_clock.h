#pragma once

#include "service/base/clock.h"

namespace keldra {

/// A clock that stands still until the test moves it.
class TestClock : public Clock {
public:
    std::int64_t now() const override { return seconds; }
    std::int64_t steadyMilliseconds() const override { return milliseconds; }
    void pass(std::int64_t time) {
        seconds += time;
        milliseconds += time * 1000;
    }

    std::int64_t seconds = 1'000'000'000;
    std::int64_t milliseconds = 5000;
};

}  // namespace keldra
