#include "service/access/logon_guard.h"

#include <algorithm>

namespace keldra {

std::int64_t LogonGuard::waitAfter(unsigned failures) {
    if (failures < FREE_FAILURES) return 0;
    const unsigned doublings = std::min(failures - FREE_FAILURES, 16U);
    return std::min(std::int64_t{1} << doublings, LONGEST_WAIT) * 1000;
}

bool LogonGuard::admits(const std::string& address) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(address);
    if (found == entries_.end()) return true;
    const std::int64_t passed = clock_.steadyMilliseconds() - found->second.last;
    return passed >= waitAfter(found->second.failures);
}

void LogonGuard::failed(const std::string& address) {
    const std::lock_guard lock(mutex_);
    const std::int64_t now = clock_.steadyMilliseconds();
    if (!entries_.contains(address)) makeRoom();
    Entry& entry = entries_[address];
    if (entry.failures > 0 && now - entry.last > FORGET_AFTER * 1000) entry.failures = 0;
    ++entry.failures;
    entry.last = now;
}

void LogonGuard::succeeded(const std::string& address) {
    const std::lock_guard lock(mutex_);
    entries_.erase(address);
}

void LogonGuard::makeRoom() {
    if (entries_.size() < capacity_) return;
    const auto oldest = std::min_element(entries_.begin(), entries_.end(),
                                         [](const auto& a, const auto& b) { return a.second.last < b.second.last; });
    entries_.erase(oldest);
}

}  // namespace keldra
