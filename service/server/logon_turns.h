#pragma once

#include "service/access/logon_queue.h"
#include "service/server/work_lane.h"

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <string>

namespace keldra {

class LogonGuard;

/// Lets log-ons wait for their turn and hands them to the lane where their passwords are looked at. Used on the thread
/// of the io_context.
class LogonTurns {
public:
    LogonTurns(asio::io_context& io, LogonGuard& guard, WorkLane& lane, const Clock& clock);

    /// `look` is called on the lane when it is the address's turn; `refuse`, here, when there are too many, which is
    /// then not counted as an attempt. The address was admitted before.
    void put(const std::string& address, LogonQueue::Look look, LogonQueue::Look refuse);
    void stop();

private:
    LogonQueue::Look measured(LogonQueue::Look look);
    void serve();

    LogonGuard& guard_;
    WorkLane& lane_;
    asio::steady_timer timer_;
    LogonQueue queue_;
    std::atomic<unsigned> handed_ = 0;  ///< to the lane, and not done
};

}  // namespace keldra
