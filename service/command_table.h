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

/// Where a command's handler runs. What answers from memory is done at once, on the thread that received it: a page of
/// the console asks several such questions, and each change of threads would cost as much as the answer.
enum class Runs : std::uint8_t { IN_POOL, AT_ONCE };

/// A row of the command table.
struct Command {
    std::int32_t commandID;
    std::int32_t operation;
    Needs needs;
    const char* name;
    Handler handler;
    Runs runs = Runs::IN_POOL;
};

/// All commands that the service answers.
std::span<const Command> commandTable();

/// Whether a request's answer comes from memory.
bool answersAtOnce(const IPCMessage& request);

/// Answers a request: result 1 when the command's handler did it, 2 otherwise, also for a command or kind that is not
/// in the table.
IPCMessage answer(Service& service, const IPCMessage& request);

}  // namespace keldra
