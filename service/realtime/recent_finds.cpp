#include "service/realtime/recent_finds.h"

#include <chrono>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::seconds LATELY{30};
constexpr std::size_t MOST = 4096;

}  // namespace

void RecentFinds::dropOld() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(finds_, [now](const auto& find) { return find.second.until < now; });
}

void RecentFinds::add(const FileIdentity& file, std::string path) {
    const std::lock_guard lock(mutex_);
    if (finds_.size() >= MOST) dropOld();
    if (finds_.size() >= MOST) finds_.erase(finds_.begin());
    finds_.insert_or_assign(file, Find{std::move(path), std::chrono::steady_clock::now() + LATELY});
    any_ = true;
}

std::optional<std::string> RecentFinds::pathOf(const FileIdentity& file) const {
    if (!any_) return std::nullopt;
    const std::lock_guard lock(mutex_);
    const auto found = finds_.find(file);
    if (found == finds_.end() || found->second.until < std::chrono::steady_clock::now()) return std::nullopt;
    return found->second.path;
}

}  // namespace keldra
