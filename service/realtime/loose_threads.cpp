#include "service/realtime/loose_threads.h"

#include <exception>
#include <thread>
#include <utility>

namespace keldra {

bool LooseThreads::start(std::function<void()> body) try {
    const auto ended = [](Count* count) {
        const std::lock_guard lock(count->mutex);
        --count->running;
        count->changed.notify_all();
    };
    {
        const std::lock_guard lock(count_->mutex);
        ++count_->running;
    }
    // Counted off once the body and all that it holds are gone, or when there was no thread for it.
    auto counted = std::shared_ptr<Count>(count_.get(), [keep = count_, ended](Count* count) { ended(count); });
    std::thread([counted = std::move(counted), body = std::move(body)]() mutable {
        std::exchange(body, nullptr)();
        counted.reset();
    }).detach();
    return true;
} catch (const std::exception&) {
    return false;
}

bool LooseThreads::awaitEnd(std::chrono::steady_clock::time_point until) const {
    std::unique_lock lock(count_->mutex);
    return count_->changed.wait_until(lock, until, [this] { return count_->running == 0; });
}

}  // namespace keldra
