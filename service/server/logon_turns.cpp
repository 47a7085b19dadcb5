#include "service/server/logon_turns.h"

#include "norv/log.h"
#include "service/access/logon_guard.h"

#include <chrono>
#include <ctime>
#include <utility>

namespace keldra {

namespace {

/// Behind those on the lane everybody waits, whoever's turn it is.
constexpr unsigned MOST_HANDED = 4;

/// Counts one less at its end, however that comes.
struct Return {
    std::atomic<unsigned>& count;
    ~Return() { --count; }
};

/// Milliseconds of processor time that this thread has used.
std::int64_t threadTime() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return std::int64_t{used.tv_sec} * 1000 + used.tv_nsec / 1'000'000;
}

}  // namespace

LogonTurns::LogonTurns(asio::io_context& io, LogonGuard& guard, WorkLane& lane, const Clock& clock)
    : guard_(guard), lane_(lane), timer_(io), queue_(clock) {}

/// The lane has come to its end before this does.
LogonQueue::Look LogonTurns::measured(LogonQueue::Look look) {
    return [this, look = std::move(look)] {
        const Return returned{handed_};
        const std::int64_t before = threadTime();
        look();
        queue_.took(threadTime() - before);
    };
}

void LogonTurns::put(const std::string& address, LogonQueue::Look look, LogonQueue::Look refuse) {
    queue_.put(guard_.placeOf(address), measured(std::move(look)), [this, address, refuse = std::move(refuse)] {
        NORV_LOG(NORV_LOG_REFUSED, "Password from %s not looked at: too many others", address.c_str());
        guard_.withdraw(address);
        refuse();
    });
    serve();
}

/// The timer first: what throws behind it, for want of memory, leaves nobody waiting for ever.
void LogonTurns::serve() {
    const auto wait = queue_.wait();
    if (!wait) return;
    timer_.expires_after(std::chrono::milliseconds(*wait));
    timer_.async_wait([this](const asio::error_code& stopped) {
        if (!stopped) serve();
    });
    queue_.serve([this](const LogonQueue::Look& look) {
        if (handed_ >= MOST_HANDED) return false;
        ++handed_;
        const bool taken = lane_.post(look);
        if (!taken) --handed_;
        return taken;
    });
}

void LogonTurns::stop() {
    timer_.cancel();
    queue_.clear();
}

}  // namespace keldra
