#include "service/engine/bad_files.h"

namespace keldra {

BadFiles::Key BadFiles::keyOf(const struct stat& status) {
    return {static_cast<int64_t>(status.st_dev), static_cast<int64_t>(status.st_ino),
            static_cast<int64_t>(status.st_size), static_cast<int64_t>(status.st_ctim.tv_sec),
            static_cast<int64_t>(status.st_ctim.tv_nsec)};
}

std::optional<std::string> BadFiles::reasonOf(const struct stat& status) const {
    const std::lock_guard lock(mutex_);
    const auto found = reasons_.find(keyOf(status));
    return found == reasons_.end() ? std::nullopt : std::optional(found->second);
}

void BadFiles::add(const struct stat& status, const std::string& reason) {
    const std::lock_guard lock(mutex_);
    const Key key = keyOf(status);
    if (!reasons_.insert_or_assign(key, reason).second) return;
    order_.push_back(key);
    if (order_.size() <= MOST) return;
    reasons_.erase(order_.front());
    order_.pop_front();
}

void BadFiles::forget() {
    const std::lock_guard lock(mutex_);
    reasons_.clear();
    order_.clear();
}

}  // namespace keldra
