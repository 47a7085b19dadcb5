#include "service/realtime/recent_finds.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::seconds LATELY{30};
constexpr std::size_t MOST = 4096;

}  // namespace

void RecentFinds::dropOld() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(finds_, [now](const auto& find) { return find.second.actions == 0 && find.second.until < now; });
    if (finds_.size() < MOST) return;
    const auto idle =
        std::find_if(finds_.begin(), finds_.end(), [](const auto& find) { return find.second.actions == 0; });
    if (idle != finds_.end()) finds_.erase(idle);
}

void RecentFinds::add(const FileIdentity& file, std::string path) {
    const std::lock_guard lock(mutex_);
    if (finds_.size() >= MOST) dropOld();
    Find& find = finds_[file];
    find.path = std::move(path);
    find.until = std::chrono::steady_clock::now() + LATELY;
    any_ = true;
}

std::optional<std::string> RecentFinds::pathOf(const FileIdentity& file) const {
    if (!any_) return std::nullopt;
    const std::lock_guard lock(mutex_);
    const auto found = finds_.find(file);
    if (found == finds_.end()) return std::nullopt;
    const Find& find = found->second;
    const bool recent = find.actions > 0 || find.until >= std::chrono::steady_clock::now();
    return recent ? std::optional(find.path) : std::nullopt;
}

std::shared_ptr<void> RecentFinds::beginAction(const std::shared_ptr<RecentFinds>& finds, const FileIdentity& file,
                                               std::string path) {
    finds->add(file, std::move(path));
    {
        const std::lock_guard lock(finds->mutex_);
        ++finds->finds_[file].actions;
    }
    return {finds.get(), [finds, file](void*) { finds->endAction(file); }};
}

void RecentFinds::endAction(const FileIdentity& file) {
    const std::lock_guard lock(mutex_);
    const auto found = finds_.find(file);
    if (found == finds_.end()) return;
    --found->second.actions;
    found->second.until = std::chrono::steady_clock::now() + LATELY;
}

bool RecentFinds::isActedOn(const FileIdentity& file) const {
    if (!any_) return false;
    const std::lock_guard lock(mutex_);
    const auto found = finds_.find(file);
    return found != finds_.end() && found->second.actions > 0;
}

}  // namespace keldra
