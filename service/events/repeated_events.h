#pragma once

#include "service/events/event_journal.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace keldra {

/// What strangers can bring about as often as they like, refused log-ons above all, bundled so that it never drives
/// everything else out of the journal: the first one from an address stands there at once, the others of its minute as
/// one event. Beyond some hundred a day, from however many addresses, there is one event an hour. May be used from any
/// thread.
class RepeatedEvents {
public:
    explicit RepeatedEvents(EventJournal& journal, const Clock& clock = systemClock());

    /// Takes note of an event; those with the same address and action belong together.
    void add(Event event);
    /// Writes what has waited for its time. To be called every minute or so. `all`: also what has not.
    void settle(bool all = false);

private:
    struct Bundle {
        Event event{};  ///< as it is to be written, with the number of those that are not
        std::int64_t due = 0;
    };

    bool mayWrite(std::int64_t now);
    void settleLocked(std::int64_t now);

    EventJournal& journal_;
    const Clock& clock_;
    std::mutex mutex_;
    std::map<std::string, Bundle> bundles_;
    Bundle rest_;  ///< from all addresses for which there is no room
    std::int64_t room_;
    std::int64_t refilled_;  ///< steady milliseconds
};

}  // namespace keldra
