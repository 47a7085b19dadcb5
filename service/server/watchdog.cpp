#include "service/server/watchdog.h"

#include "norv/log.h"
#include "service/server/notify.h"

#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>

namespace keldra {

namespace {

/// Signs of life in the time that the manager waits for one.
constexpr int SIGNS = 4;

std::optional<std::int64_t> numberIn(const char* variable) {
    const char* const value = std::getenv(variable);
    if (!value) return std::nullopt;
    const std::string_view text(value);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

}  // namespace

std::chrono::microseconds watchdogTime() {
    const auto time = numberIn("WATCHDOG_USEC");
    // Where a process is named another one may have inherited the variables.
    if (!time || *time <= 0 || numberIn("WATCHDOG_PID").value_or(::getpid()) != ::getpid()) return {};
    return std::chrono::microseconds(*time);
}

Watchdog::Watchdog(asio::io_context& io, Probe probe, Check check)
    : probe_(std::move(probe)), check_(std::move(check)), timer_(io) {}

void Watchdog::start() {
    interval_ = watchdogTime() / SIGNS;
    if (interval_.count() > 0) look();
}

void Watchdog::lookLater() {
    timer_.expires_after(interval_);
    timer_.async_wait([this](const asio::error_code& stopped) {
        if (!stopped) look();
    });
}

void Watchdog::look() {
    // Before anything that may throw, or the service would be ended for want of a moment's memory.
    lookLater();
    const bool answered = answered_->load();
    if (answered && check_()) notifyManager("WATCHDOG=1");
    if (!answered) {
        NORV_LOG(NORV_LOG_ERROR, "Requests are not being answered; the service manager is not told that all is well");
        return;
    }
    answered_->store(false);
    probe_([answered = answered_] { answered->store(true); });
}

}  // namespace keldra
