#pragma once

#include "service/access/logon_queue.h"
#include "service/base/clock.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// An address that must wait before its next attempt.
struct LogonBlock {
    std::string address;  ///< of IPv6 the network, as "2001:db8::/64"
    unsigned failures = 0;
    std::int64_t seconds = 0;  ///< still to wait
};

/// Slows down guessing. After a few failures an address must wait, each time twice as long. What others do is not held
/// against it, but for the code of the second step: of those who have the password and were never let in, all that are
/// in the local network share a number of attempts, and all others another, so that having many addresses does not
/// help. An attempt counts as a failure from the moment it is admitted, so that attempts at the same time gain nothing.
/// Bounded: when a table is full the addresses heard of longest ago are forgotten. May be used from several threads.
class LogonGuard {
public:
    static constexpr unsigned FREE_FAILURES = 3;
    static constexpr std::int64_t LONGEST_WAIT = 300;   ///< seconds
    static constexpr std::int64_t FORGET_AFTER = 3600;  ///< seconds without a failure
    static constexpr std::int64_t SHARED_ATTEMPTS = 30;
    static constexpr std::int64_t SHARED_REFILL = 2000;  ///< milliseconds for one attempt more

    /// `capacity`: addresses in a table; more than can be looked at while the longest wait lasts.
    explicit LogonGuard(const Clock& clock, std::size_t capacity = 8192);

    /// Counts an attempt from this address. Empty: it may be looked at; otherwise, in English, why not.
    std::string admit(const std::string& address);
    /// The same for the code of the second step.
    std::string admitCode(const std::string& address);
    /// An attempt that was admitted was not looked at after all.
    void withdraw(const std::string& address);
    /// The attempt was right: nothing is held against the address any more, and others' failures do not touch it.
    void succeeded(const std::string& address);
    /// Somebody logged on from this address before the service was started.
    void know(const std::string& address);
    LogonPlace placeOf(const std::string& address) const;

    /// The addresses that must wait, longest first.
    std::vector<LogonBlock> blocks() const;
    /// Forgets the failures of an address, written as `blocks` does or as any address in it; where others used up what
    /// it shares with them, it need not share any more. False when nothing held it up.
    bool lift(const std::string& address);

private:
    struct Entry {
        unsigned failures = 0;
        std::int64_t last = 0;  ///< milliseconds of the steady clock
    };
    using Entries = std::map<std::string, Entry>;
    struct Shared {
        std::int64_t left = SHARED_ATTEMPTS;
        std::int64_t refilled = 0;  ///< milliseconds of the steady clock up to which attempts were given back
    };

    static std::int64_t waitAfter(unsigned failures);
    std::int64_t waitOf(const Entry& entry, std::int64_t now) const;
    bool mustWait(const std::string& key) const;
    void count(const std::string& key);
    void refill(Shared& shared) const;
    Shared& sharedBy(const std::string& key);
    Entry& entryOf(Entries& entries, const std::string& key) const;

    const Clock& clock_;
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    Entries failing_;
    Entries known_;
    Shared local_;
    Shared others_;
};

}  // namespace keldra
