#pragma once

#include "norv/ipc_message.h"

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace asio {
class io_context;
}

namespace keldra {

/// Bounds of the message server.
struct ServerLimits {
    std::size_t connections = 1024;                      ///< beyond that the one idle longest is closed
    std::size_t bufferedBytes = std::size_t{64} << 20U;  ///< of unfinished requests and unsent replies together
    std::chrono::milliseconds frameTime{10'000};         ///< for a frame to arrive once it began, or to be taken
    std::chrono::milliseconds idleTime{600'000};         ///< between two requests
    unsigned threads = 4;                                ///< handlers that run at a time
};

/// Who may talk to the service, besides root and the service's own user.
struct ServerAccess {
    std::vector<uid_t> users;
    gid_t group = static_cast<gid_t>(-1);  ///< group of the socket file; -1 leaves it
};

/// Answers requests on a Unix stream socket (0660). What is malformed costs the connection it came on. Handlers run on
/// threads of their own, so a slow one delays its own connection only; those that are quick run where they are
/// received.
class MessageServer {
public:
    using Answer = std::function<IPCMessage(const IPCMessage& request)>;
    using Quick = std::function<bool(const IPCMessage& request)>;

    /// `quick` tells the requests that `answer` answers without waiting for anything; empty: none.
    MessageServer(asio::io_context& io, ServerAccess access, const ServerLimits& limits, Answer answer,
                  Quick quick = {});
    ~MessageServer();
    MessageServer(const MessageServer&) = delete;
    MessageServer& operator=(const MessageServer&) = delete;

    /// Binds the socket and begins to listen; an old socket file that nobody listens on is replaced. False, with one
    /// sentence in `error`, when it cannot be had, for instance because another instance serves it.
    bool listen(const std::filesystem::path& socket, std::string& error);
    /// Accepts from here on; until then connects wait.
    void start();
    /// Has `done` called by one of the threads that handlers run on, as soon as one is free.
    void probe(std::function<void()> done);
    /// Closes socket and connections, waits for the handlers that run and removes the socket file.
    void stop();

private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace keldra
