#include "service/realtime/access_queue.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

unsigned countOf(const std::map<uid_t, unsigned>& running, uid_t user) {
    const auto found = running.find(user);
    return found == running.end() ? 0 : found->second;
}

}  // namespace

AccessQueue::Scanned AccessQueue::scannedOf(const FileAccess& access) {
    // Only what somebody once waited for can have taken too long for him.
    return {.file = access.glance().identity, .user = access.user(), .overdue = access.opener() != nullptr};
}

bool AccessQueue::hasRoom(Lane lane, const FileAccess& access) const {
    const std::deque<Item>& items = at(lane).items;
    const std::size_t limit = lane == Lane::BACKGROUND ? limits_.background : limits_.waiting;
    if (items.size() >= limit) return false;
    if (items.size() < limit / 2) return true;
    const auto own =
        std::count_if(items.begin(), items.end(), [&](const Item& other) { return other->user() == access.user(); });
    return static_cast<std::size_t>(own) < limit / 2;
}

bool AccessQueue::push(Lane lane, const Item& item) {
    const std::lock_guard lock(mutex_);
    Waiting& to = at(lane);
    const auto same = [&](const Item& other) { return other->glance().identity == item->glance().identity; };
    if (lane == Lane::BACKGROUND && std::any_of(to.items.begin(), to.items.end(), same)) return true;
    if (ended_ || !hasRoom(lane, *item)) return false;
    to.items.push_back(item);
    if (lane == Lane::BACKGROUND && item->opener()) slow_.insert(item->glance().identity);
    to.ready.notify_one();
    return true;
}

/// The oldest of the user who has the fewest scans under way.
std::deque<AccessQueue::Item>::iterator AccessQueue::nextOf(Lane lane) {
    Waiting& from = at(lane);
    const auto fewer = [&](const Item& a, const Item& b) {
        return countOf(from.running, a->user()) < countOf(from.running, b->user());
    };
    const auto next = std::min_element(from.items.begin(), from.items.end(), fewer);
    if (next == from.items.end() || lane != Lane::SLOW) return next;
    return countOf(from.running, (*next)->user()) < limits_.slowAtOnce ? next : from.items.end();
}

AccessQueue::Item AccessQueue::pop(Lane lane) {
    std::unique_lock lock(mutex_);
    Waiting& from = at(lane);
    from.ready.wait(lock, [&] { return ended_ || nextOf(lane) != from.items.end(); });
    if (ended_) return nullptr;
    const auto next = nextOf(lane);
    Item item = std::move(*next);
    from.items.erase(next);
    ++from.running[item->user()];
    return item;
}

void AccessQueue::done(Lane lane, const Scanned& scanned) {
    const std::lock_guard lock(mutex_);
    Waiting& from = at(lane);
    const auto running = from.running.find(scanned.user);
    if (running != from.running.end() && --running->second == 0) from.running.erase(running);
    const auto slow = lane == Lane::BACKGROUND && scanned.overdue ? slow_.find(scanned.file) : slow_.end();
    if (slow != slow_.end()) slow_.erase(slow);
    if (lane == Lane::SLOW) from.ready.notify_all();
}

std::size_t AccessQueue::waiting(Lane lane) const {
    const std::lock_guard lock(mutex_);
    return at(lane).items.size();
}

bool AccessQueue::isSlow(const FileAccess& access) const {
    const std::lock_guard lock(mutex_);
    return slow_.count(access.glance().identity) != 0;
}

void AccessQueue::end() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    for (Waiting& lane : lanes_) lane.ready.notify_all();
}

void AccessQueue::drop() {
    std::array<std::deque<Item>, 3> left;  // goes after the lock
    const std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < left.size(); ++i) left[i].swap(lanes_[i].items);
}

}  // namespace keldra
