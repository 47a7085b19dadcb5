#include "service/realtime/unscannable_files.h"

namespace keldra {

UnscannableFiles::Key UnscannableFiles::keyOf(const struct stat& file) {
    return {{file.st_dev, file.st_ino}, file.st_size, file.st_ctim.tv_sec, file.st_ctim.tv_nsec};
}

void UnscannableFiles::add(const struct stat& file) {
    const Key key = keyOf(file);
    const std::lock_guard lock(mutex_);
    if (!known_.insert(key).second) return;
    byAge_.push_back(key);
    if (byAge_.size() <= MOST) return;
    known_.erase(byAge_.front());
    byAge_.pop_front();
}

bool UnscannableFiles::knows(const struct stat& file) const {
    const Key key = keyOf(file);
    const std::lock_guard lock(mutex_);
    return known_.count(key) != 0;
}

void UnscannableFiles::forget() {
    const std::lock_guard lock(mutex_);
    known_.clear();
    byAge_.clear();
}

}  // namespace keldra
