#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace keldra {

/// Threads that may be left behind: one that hangs in the kernel cannot be ended, and must not hold up whoever wants
/// all of them gone. A thread's function holds whatever it works with. Copies stand for the same threads.
class LooseThreads {
public:
    /// False when no thread can be made. `body` must not throw.
    bool start(std::function<void()> body);
    /// Whether all have ended, which is waited for until `until`.
    bool awaitEnd(std::chrono::steady_clock::time_point until) const;

private:
    struct Count {
        std::mutex mutex;
        std::condition_variable changed;
        unsigned running = 0;
    };
    std::shared_ptr<Count> count_ = std::make_shared<Count>();
};

}  // namespace keldra
