#include "service/server/settings_applier.h"

#include "service/settings/configuration_store.h"

#include <algorithm>

namespace keldra {

void SettingsApplier::applyNewest(bool byHand) {
    std::unique_lock lock(mutex_);
    const std::uint64_t wanted = wanted_;
    if (applied_ >= wanted && !byHand) return;
    lock.unlock();
    if (byHand) configuration_.backUp();
    putInForce_(*configuration_.snapshot());
    lock.lock();
    applied_ = std::max(applied_, wanted);
    changed_.notify_all();
}

std::uint64_t SettingsApplier::post(bool byHand) {
    const std::lock_guard lock(mutex_);
    ++wanted_;
    lane_.post([this, byHand] { applyNewest(byHand); });
    return wanted_;
}

void SettingsApplier::applySoon(bool byHand) { post(byHand); }

void SettingsApplier::apply(std::chrono::milliseconds patience) {
    const std::uint64_t mine = post(false);
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] { return applied_ >= mine; });
}

}  // namespace keldra
