#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "norv/ipc_message.h"

namespace keldra {

/// Who is at the other end of a connection.
struct Caller {
    uid_t user = 0;         ///< as the kernel tells it
    bool owner = false;     ///< root or the service's own user; otherwise one of those allowed besides
    std::string session{};  ///< id of the session that was proved on this connection, empty before
    std::string address{};  ///< of the browser whose session that is
    std::string name{};     ///< of the user whose session that is
};

/// A reply, and what the connection may know of its caller from then on.
struct Answered {
    IPCMessage reply;
    std::optional<Caller> caller{};
};

/// Takes the reply to one request; to be called once, from any thread.
using Reply = std::function<void(Answered answered)>;

}  // namespace keldra
