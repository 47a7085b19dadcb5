#pragma once

#include "service/server/caller.h"

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
};

/// Who may talk to the service, besides root and the service's own user.
struct ServerAccess {
    std::vector<uid_t> users;
    gid_t group = static_cast<gid_t>(-1);  ///< group of the socket file; -1 leaves it
};

/// Takes requests on a Unix stream socket (0660) and sends the replies. What is malformed costs the connection it came
/// on, and so does want of memory or descriptors: the others go on, and new ones are taken once it is over.
class MessageServer {
public:
    /// Answers a request by calling `reply`, at once or later. Called on the thread of the io_context, so it must not
    /// wait for anything. What it throws is told to the client as a refusal and costs the connection.
    using Answer = std::function<void(IPCMessage request, const Caller& caller, Reply reply)>;

    MessageServer(asio::io_context& io, ServerAccess access, const ServerLimits& limits, Answer answer);
    ~MessageServer();
    MessageServer(const MessageServer&) = delete;
    MessageServer& operator=(const MessageServer&) = delete;

    /// Binds the socket and begins to listen; an old socket file that nobody listens on is replaced. False, with one
    /// sentence in `error`, when it cannot be had, for instance because another instance serves it.
    bool listen(const std::filesystem::path& socket, std::string& error);
    /// Accepts from here on; until then connects wait.
    void start();
    /// Closes socket and connections and removes the socket file. Replies that come later go nowhere.
    void stop();

private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace keldra
