#pragma once

#include "service/server/caller.h"
#include "service/server/chronicle.h"
#include "service/server/command_table.h"
#include "service/server/lanes.h"
#include "service/server/logon_turns.h"
#include "service/server/parts.h"

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace keldra {

/// Answers requests with the handlers of the command table: checks who may, finds the lane where it is done, and tells
/// the client when that takes too long. Used on the thread of the io_context.
class Dispatcher {
public:
    Dispatcher(asio::io_context& io, Parts parts, Lanes& lanes, Chronicle& chronicle);

    /// Calls `reply` once, at once or later.
    void answer(IPCMessage request, const Caller& caller, Reply reply);
    void stop();

private:
    void putInTurn(const Command& command, IPCMessage request, const Caller& caller, Reply reply);
    void postTo(WorkLane& lane, const Command& command, IPCMessage request, const Caller& caller, Reply reply);
    IPCMessage told(Handler handler, const Command& command, const Caller& caller, const IPCMessage& request,
                    bool isGate) const;
    Answered done(const Command& command, const Caller& caller, const IPCMessage& request) const;
    void sweepLater();

    const Parts parts_;
    Lanes& lanes_;
    Chronicle& chronicle_;
    LogonTurns logonTurns_;
    asio::steady_timer sweeping_;
    bool swept_ = false;
};

}  // namespace keldra
