#include "service/base/clock.h"

#include <chrono>

namespace keldra {

namespace {

class SystemClock : public Clock {
public:
    std::int64_t now() const override {
        using namespace std::chrono;
        return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
    }
    std::int64_t steadyMilliseconds() const override {
        using namespace std::chrono;
        return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
    }
};

}  // namespace

const Clock& systemClock() {
    static const SystemClock clock;
    return clock;
}

}  // namespace keldra
