#include "service/clients/client_limits.h"

namespace keldra {

ClientLimits::Share::~Share() {
    if (!limits_) return;
    const std::lock_guard lock(limits_->mutex_);
    limits_->taken_ -= amount_;
    const auto place = limits_->byClient_.find(key_);
    if ((place->second -= amount_) == 0) limits_->byClient_.erase(place);
    limits_->wakeFirst();
}

bool ClientLimits::fits(const std::string& key, std::uint64_t amount) const {
    const auto place = byClient_.find(key);
    const std::uint64_t has = place == byClient_.end() ? 0 : place->second;
    return amount <= inAll_ - taken_ && has <= each_ && amount <= each_ - has;
}

ClientLimits::Share ClientLimits::give(const std::string& key, std::uint64_t amount) {
    byClient_[key] += amount;
    taken_ += amount;
    return {*this, key, amount};
}

void ClientLimits::wakeFirst() {
    for (const auto& [key, queue] : waiting_)
        if (fits(key, 1)) queue.front()->notify_one();
}

std::optional<ClientLimits::Share> ClientLimits::take(const std::string& key, std::uint64_t amount) {
    const std::lock_guard lock(mutex_);
    if (!fits(key, amount)) return std::nullopt;
    return give(key, amount);
}

std::optional<ClientLimits::Share> ClientLimits::wait(const std::string& key, const std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    std::condition_variable_any turn;
    auto& queue = waiting_[key];
    queue.push_back(&turn);
    const bool free = turn.wait(lock, stop, [&] { return queue.front() == &turn && fits(key, 1); });
    std::erase(queue, &turn);
    if (queue.empty()) waiting_.erase(key);
    if (free) byClient_[key] += 1, taken_ += 1;
    wakeFirst();
    return free ? std::optional<Share>(std::in_place, *this, key, std::uint64_t{1}) : std::nullopt;
}

std::uint64_t ClientLimits::taken() const {
    const std::lock_guard lock(mutex_);
    return taken_;
}

}  // namespace keldra
