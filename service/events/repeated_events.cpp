#include "service/events/repeated_events.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace keldra {

namespace {

constexpr std::int64_t MINUTE = std::int64_t{60} * 1000;  // milliseconds
constexpr std::int64_t HOUR = 60 * MINUTE;
/// Addresses and minutes that get events of their own.
constexpr std::int64_t MOST_ROOM = 100;
constexpr std::int64_t ROOM_EVERY = 15 * MINUTE;

}  // namespace

RepeatedEvents::RepeatedEvents(EventJournal& journal, const Clock& clock)
    : journal_(journal), clock_(clock), room_(MOST_ROOM), refilled_(clock.steadyMilliseconds()) {
    rest_.event.count = 0;
}

bool RepeatedEvents::mayWrite(std::int64_t now) {
    const std::int64_t more = (now - refilled_) / ROOM_EVERY;
    room_ = std::min(room_ + more, MOST_ROOM);
    refilled_ += more * ROOM_EVERY;
    if (room_ == 0) return false;
    --room_;
    return true;
}

void RepeatedEvents::add(Event event) {
    const std::lock_guard lock(mutex_);
    const std::int64_t now = clock_.steadyMilliseconds();
    settleLocked(now);
    const std::string key = event.who.address + '\n' + event.action;
    if (const auto known = bundles_.find(key); known != bundles_.end()) {
        const std::uint64_t count = known->second.event.count + event.count;
        known->second.event = std::move(event);
        known->second.event.count = count;
    } else if (mayWrite(now)) {
        journal_.add(event);
        event.count = 0;
        bundles_[key] = {std::move(event), now + MINUTE};
    } else {
        if (rest_.event.count == 0) rest_.due = now + HOUR;
        const std::uint64_t count = rest_.event.count + event.count;
        rest_.event = std::move(event);
        rest_.event.who = {};
        rest_.event.detail = "From many addresses.";
        rest_.event.count = count;
    }
}

void RepeatedEvents::settle(bool all) {
    const std::lock_guard lock(mutex_);
    settleLocked(all ? std::numeric_limits<std::int64_t>::max() : clock_.steadyMilliseconds());
}

void RepeatedEvents::settleLocked(std::int64_t now) {
    for (auto bundle = bundles_.begin(); bundle != bundles_.end();) {
        if (bundle->second.due > now) {
            ++bundle;
            continue;
        }
        if (bundle->second.event.count > 0) journal_.add(std::move(bundle->second.event));
        bundle = bundles_.erase(bundle);
    }
    if (rest_.event.count == 0 || rest_.due > now) return;
    journal_.add(std::exchange(rest_.event, Event{.count = 0}));
}

}  // namespace keldra
