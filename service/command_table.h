#pragma once

#include "norv/ipc_message.h"

#include <cstdint>
#include <span>

namespace keldra {

class Service;

/// One command: turns a request into a reply. `reply` comes with the request's kind and command and without
/// parameters. Returns whether what was asked is done; of a refusal only the parameter "Message" is sent.
using Handler = bool (*)(Service& service, const IPCMessage& request, IPCMessage& reply);

/// What must hold before a command's handler runs.
enum class Needs : std::uint8_t { NOTHING, CONFIGURATION };

/// A row of the command table.
struct Command {
    std::int32_t commandID;
    std::int32_t operation;
    Needs needs;
    const char* name;
    Handler handler;
};

/// All commands that the service answers.
std::span<const Command> commandTable();

/// Answers a request: result 1 when the command's handler did it, 2 otherwise, also for a command or kind that is not
/// in the table.
IPCMessage answer(Service& service, const IPCMessage& request);

}  // namespace keldra
