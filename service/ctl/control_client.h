#pragma once

#include "norv/ipc_message.h"

#include <string>
#include <utility>
#include <vector>

namespace keldra {

/// What the service answered to keldractl.
struct ControlReply {
    bool reached = false;  ///< the service answered at all
    bool done = false;     ///< it did what was asked
    IPCMessage message;

    /// Why it is not done, in one sentence.
    std::string fault() const;
    std::string text(const std::string& name) const { return message.value<std::string>(name); }
};

/// Asks the running service.
ControlReply ask(IPCMessage::Operation operation, IPCMessage::CommandID command,
                 const std::vector<std::pair<std::string, std::string>>& parameters = {});

/// A text from outside made fit for a terminal: control characters are shown as \xNN.
std::string printable(const std::string& text);

/// A time (seconds since the epoch) as people write it, local; `never` for 0.
std::string timeText(std::int64_t time, const char* never = "never");

}  // namespace keldra
