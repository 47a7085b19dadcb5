#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace keldra {

/// Tells the service manager that the service is alive, as often as it wants to hear it (WATCHDOG_USEC, see
/// sd_notify(3)). Silent once anything that must get to its work does not any more, so that the manager starts the
/// service anew; whoever waits to open a file goes on then. Used on the thread of the io_context.
class Watchdog {
public:
    /// Has `done` called, by any thread, as soon as something gets to its work.
    using Probe = std::function<void(std::function<void()> done)>;
    /// Whether something works, answered at once.
    using Check = std::function<bool()>;

    Watchdog(asio::io_context& io, Probe probe, Check check);

    /// Nothing happens when no manager wants to hear anything.
    void start();
    void stop() { timer_.cancel(); }

private:
    void lookLater();
    void look();

    const Probe probe_;
    const Check check_;
    asio::steady_timer timer_;
    std::chrono::microseconds interval_{0};
    std::shared_ptr<std::atomic<bool>> answered_ = std::make_shared<std::atomic<bool>>(true);
};

/// How long the service manager waits for a sign of life of this process; 0 when it wants none.
std::chrono::microseconds watchdogTime();

}  // namespace keldra
