#include "service/realtime/access_queue.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

bool isLarge(const FileAccess& access) { return access.glance().size >= (std::uint64_t{32} << 20U); }

}  // namespace

bool AccessQueue::push(Lane lane, const Item& item) {
    const std::lock_guard lock(mutex_);
    std::deque<Item>& items = waiting(lane).items;
    if (lane == Lane::BACKGROUND && std::any_of(items.begin(), items.end(), [&](const Item& other) {
            return other->glance().identity == item->glance().identity;
        }))
        return true;
    if (items.size() >= limit_) return false;
    items.push_back(item);
    if (lane == Lane::BACKGROUND && item->overdue()) slow_.insert(item->glance().identity);
    waiting(lane).ready.notify_one();
    return true;
}

std::deque<AccessQueue::Item>::iterator AccessQueue::nextOf(Lane lane) {
    std::deque<Item>& items = waiting(lane).items;
    if (lane == Lane::BACKGROUND || large_ < largeAtOnce_) return items.begin();
    return std::find_if(items.begin(), items.end(), [](const Item& item) { return !isLarge(*item); });
}

AccessQueue::Item AccessQueue::pop(Lane lane) {
    std::unique_lock lock(mutex_);
    Waiting& from = waiting(lane);
    from.ready.wait(lock, [&] { return ended_ || nextOf(lane) != from.items.end(); });
    if (ended_) return nullptr;
    const auto next = nextOf(lane);
    Item item = std::move(*next);
    from.items.erase(next);
    if (lane == Lane::WAITED_FOR && isLarge(*item)) ++large_;
    return item;
}

void AccessQueue::done(Lane lane, const FileAccess& access) {
    const std::lock_guard lock(mutex_);
    if (lane == Lane::BACKGROUND) {
        const auto slow = slow_.find(access.glance().identity);
        if (slow != slow_.end() && access.overdue()) slow_.erase(slow);
    } else if (isLarge(access)) {
        --large_;
        waiting(lane).ready.notify_one();
    }
}

bool AccessQueue::isSlow(const FileAccess& access) {
    const std::lock_guard lock(mutex_);
    return slow_.count(access.glance().identity) != 0;
}

void AccessQueue::end() {
    std::array<std::deque<Item>, 2> left;  // answered outside of the lock
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        for (std::size_t i = 0; i < left.size(); ++i) left[i].swap(lanes_[i].items);
    }
    for (Waiting& lane : lanes_) lane.ready.notify_all();
}

}  // namespace keldra
