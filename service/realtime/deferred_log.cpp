#include "service/realtime/deferred_log.h"

#include "norv/log.h"

#include <utility>

namespace keldra {

bool DeferredLog::start(LooseThreads threads) {
    return threads.start([self = shared_from_this()] { self->write(); });
}

void DeferredLog::note(std::string line) {
    constexpr std::size_t MOST = 100;
    const std::lock_guard lock(mutex_);
    if (lines_.size() < MOST)
        lines_.push_back(std::move(line));
    else
        ++lost_;
    ready_.notify_one();
}

void DeferredLog::end() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    ready_.notify_one();
}

void DeferredLog::write() {
    std::unique_lock lock(mutex_);
    while (true) {
        ready_.wait(lock, [this] { return ended_ || !lines_.empty(); });
        const auto lines = std::exchange(lines_, {});
        const auto lost = std::exchange(lost_, 0);
        if (lines.empty()) return;
        lock.unlock();
        for (const std::string& line : lines) NORV_LOG(NORV_LOG_WARNING, "%s", line.c_str());
        if (lost > 0) NORV_LOG(NORV_LOG_WARNING, "%zu more such lines of the real-time scan were left out", lost);
        lock.lock();
    }
}

}  // namespace keldra
