#pragma once

#include "norv/ipc_message.h"

namespace keldra {

class Service;

/// Whether a request is answered quickly enough for the thread that all connections share.
bool answersAtOnce(const IPCMessage& request);

/// Answers a request: result 1 when the command's handler did it, 2 otherwise, also for a command or kind that is not
/// in the table.
IPCMessage answer(Service& service, const IPCMessage& request);

}  // namespace keldra
