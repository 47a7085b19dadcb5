#pragma once

#include "service/base/clock.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace keldra {

/// Slows down guessing of the password: after a few failures an address must wait, each time twice as long. Bounded:
/// when the table is full the address that failed longest ago is forgotten. May be used from several threads.
class LogonGuard {
public:
    static constexpr unsigned FREE_FAILURES = 3;
    static constexpr std::int64_t LONGEST_WAIT = 300;   ///< seconds
    static constexpr std::int64_t FORGET_AFTER = 3600;  ///< seconds without a failure

    explicit LogonGuard(const Clock& clock, std::size_t capacity = 1024) : clock_(clock), capacity_(capacity) {}

    /// Whether an attempt from this address may be looked at now.
    bool admits(const std::string& address);
    void failed(const std::string& address);
    void succeeded(const std::string& address);

private:
    struct Entry {
        unsigned failures = 0;
        std::int64_t last = 0;  ///< milliseconds of the steady clock
    };
    static std::int64_t waitAfter(unsigned failures);
    void makeRoom();

    const Clock& clock_;
    const std::size_t capacity_;
    std::mutex mutex_;
    std::map<std::string, Entry> entries_;
};

}  // namespace keldra
