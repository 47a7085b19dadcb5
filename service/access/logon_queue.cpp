#include "service/access/logon_queue.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace keldra {

namespace {

/// Whose last turn is remembered; more than had one within any attempt's patience.
constexpr std::size_t MOST_NEIGHBOURHOODS = 4096;
/// However slow the processor: nobody's turn is put off for longer.
constexpr std::int64_t LONGEST_PACE = 2000;

}  // namespace

bool LogonQueue::goesBefore(const Attempt& one, const Attempt& other) {
    if (one.place.known != other.place.known) return one.place.known;
    if (!one.place.known && one.neighbourhood->turn != other.neighbourhood->turn)
        return one.neighbourhood->turn < other.neighbourhood->turn;
    return one.place.attempts < other.place.attempts;
}

/// Whoever crowds out others goes first, then whose turn would be last.
bool LogonQueue::givesWayBefore(const Attempt& one, const Attempt& other) {
    if (one.place.known != other.place.known) return !one.place.known;
    if (one.neighbourhood->waiting != other.neighbourhood->waiting)
        return one.neighbourhood->waiting > other.neighbourhood->waiting;
    return goesBefore(other, one);
}

std::int64_t LogonQueue::pace() const { return std::clamp(cost_ * SHARE, PACE, LONGEST_PACE); }

void LogonQueue::refill() {
    const std::int64_t now = clock_.steadyMilliseconds();
    const std::int64_t back = std::min((now - refilled_) / pace(), FIRST_TURNS - left_);
    left_ += back;
    refilled_ = left_ == FIRST_TURNS ? now : refilled_ + back * pace();
}

/// The half that had its turn longest ago; those who wait stay.
void LogonQueue::forgetNeighbourhoods() {
    if (neighbourhoods_.size() < MOST_NEIGHBOURHOODS) return;
    std::vector<std::uint64_t> turns;
    turns.reserve(neighbourhoods_.size());
    for (const auto& [name, neighbourhood] : neighbourhoods_) turns.push_back(neighbourhood.turn);
    const auto middle = turns.begin() + static_cast<std::ptrdiff_t>(turns.size() / 2);
    std::nth_element(turns.begin(), middle, turns.end());
    std::erase_if(neighbourhoods_, [oldest = *middle](const auto& entry) {
        return entry.second.waiting == 0 && entry.second.turn <= oldest;
    });
}

LogonQueue::Attempts LogonQueue::take(Attempts::iterator attempt) {
    Attempts taken;
    --attempt->neighbourhood->waiting;
    taken.splice(taken.end(), waiting_, attempt);
    return taken;
}

void LogonQueue::put(const LogonPlace& place, Look look, Look refuse) {
    forgetNeighbourhoods();
    Attempt attempt{place, std::move(look), std::move(refuse), clock_.steadyMilliseconds() + PATIENCE,
                    &neighbourhoods_[place.neighbourhood]};
    waiting_.push_back(std::move(attempt));
    ++waiting_.back().neighbourhood->waiting;
    if (waiting_.size() <= MOST) return;
    // Of equals the one that came last.
    auto worst = waiting_.begin();
    for (auto other = waiting_.begin(); other != waiting_.end(); ++other)
        if (!givesWayBefore(*worst, *other)) worst = other;
    take(worst).front().refuse();
}

void LogonQueue::dropLate() {
    const std::int64_t now = clock_.steadyMilliseconds();
    while (!waiting_.empty() && waiting_.front().until <= now) take(waiting_.begin()).front().refuse();
}

void LogonQueue::serve(const std::function<bool(const Look&)>& take) {
    dropLate();
    refill();
    while (!waiting_.empty()) {
        const auto next = std::min_element(waiting_.begin(), waiting_.end(), goesBefore);
        const bool known = next->place.known;
        if ((!known && left_ == 0) || !take(next->look)) return;
        next->neighbourhood->turn = ++turns_;
        if (!known) --left_;
        this->take(next);
    }
}

std::optional<std::int64_t> LogonQueue::wait() const {
    if (waiting_.empty()) return std::nullopt;
    return std::clamp(refilled_ + pace() - clock_.steadyMilliseconds(), std::int64_t{1}, PACE);
}

void LogonQueue::clear() {
    waiting_.clear();
    neighbourhoods_.clear();
}

}  // namespace keldra
