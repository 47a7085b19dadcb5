#pragma once

#include "service/base/clock.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>

namespace keldra {

/// Who tries to log on, as far as turns go.
struct LogonPlace {
    std::string neighbourhood;  ///< the address's /24, of IPv6 its /48
    unsigned attempts = 0;      ///< that failed or wait, from the very address
    bool known = false;         ///< somebody logged on from there before
};

/// Attempts to log on that wait for their turn. Known addresses go first and without delay. Of all others so many are
/// looked at that a quarter of a processor is used at most, and ten a second, but for a first thirty: the neighbourhood
/// first that had its turn longest ago or never had one, in it the address with the fewest attempts. So whoever guesses
/// from many addresses makes others wait for one turn of each of his neighbourhoods, and not for all that he sends.
/// Bounded in number and time; what has no room any more is refused, of the neighbourhood with the most attempts first.
/// For one thread, but for `took`.
class LogonQueue {
public:
    using Look = std::function<void()>;

    static constexpr std::size_t MOST = 480;
    static constexpr std::int64_t PATIENCE = 45'000;  ///< milliseconds; shorter than the log-on page's
    static constexpr std::int64_t FIRST_TURNS = 30;
    static constexpr std::int64_t PACE = 100;  ///< milliseconds between two turns
    static constexpr std::int64_t SHARE = 4;   ///< a turn is followed by this many times the processor time it took

    explicit LogonQueue(const Clock& clock) : clock_(clock), refilled_(clock.steadyMilliseconds()) {}

    /// `look` is handed on when it is its turn; `refuse` is called when there is no room or no time for it, which may
    /// be at once.
    void put(const LogonPlace& place, Look look, Look refuse);
    /// Gives all whose turn it is to `take`, which says whether it can have one more at this moment.
    void serve(const std::function<bool(const Look&)>& take);
    /// Milliseconds until `serve` should be called; nothing when nobody waits.
    std::optional<std::int64_t> wait() const;
    /// Processor time that the last attempt took, in milliseconds. From any thread.
    void took(std::int64_t milliseconds) { cost_ = milliseconds; }
    void clear();

private:
    struct Neighbourhood {
        std::uint64_t turn = 0;  ///< its last one; 0: none
        std::size_t waiting = 0;
    };
    using Neighbourhoods = std::map<std::string, Neighbourhood>;
    struct Attempt {
        LogonPlace place;
        Look look;
        Look refuse;
        std::int64_t until = 0;
        Neighbourhood* neighbourhood = nullptr;
    };
    using Attempts = std::list<Attempt>;  // in the order in which they came

    static bool goesBefore(const Attempt& one, const Attempt& other);
    static bool givesWayBefore(const Attempt& one, const Attempt& other);
    std::int64_t pace() const;
    void refill();
    void forgetNeighbourhoods();
    Attempts take(Attempts::iterator attempt);
    void dropLate();

    const Clock& clock_;
    Neighbourhoods neighbourhoods_;
    Attempts waiting_;
    std::uint64_t turns_ = 0;
    std::int64_t left_ = FIRST_TURNS;
    std::int64_t refilled_;  ///< milliseconds of the steady clock up to which turns were given back
    std::atomic<std::int64_t> cost_ = 0;
};

}  // namespace keldra
