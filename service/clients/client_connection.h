#pragma once

#include "service/base/files.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace keldra {

/// A command as it came: without its prefix and its end.
struct ClientLine {
    std::string text;
    bool prefixed = false;  ///< with "n" or "z"
    char end = '\n';        ///< ends the reply too
};

/// One connection of a client: what it sends, with the descriptors that come beside it, and what it is sent. One thread
/// reads; several may send.
class ClientConnection {
public:
    using Clock = std::chrono::steady_clock;

    ClientConnection(FileDescriptor socket, std::chrono::seconds sendTime)
        : socket_(std::move(socket)), sendTime_(sendTime) {}

    /// The next command. Nothing at the end of the connection, when none came until `deadline` (`timedOut()` then
    /// tells) or when it is longer than a path may be.
    std::optional<ClientLine> line(Clock::time_point deadline);
    /// Exactly `bytes` of what follows, in pieces; false when they do not come, or when `take` refuses one.
    bool read(std::uint64_t bytes, std::chrono::seconds patience, const std::function<bool(std::string_view)>& take);
    /// The next descriptor; none when none comes until `deadline`.
    FileDescriptor descriptor(Clock::time_point deadline);
    bool timedOut() const { return timedOut_; }

    /// Sends it whole. False when the client does not take it in time or is gone.
    bool send(std::string_view text);
    /// Ends reading and sending, from whichever thread.
    void hangUp() const;

private:
    bool fill(Clock::time_point deadline);

    const FileDescriptor socket_;
    const std::chrono::seconds sendTime_;
    std::string buffer_;
    std::deque<FileDescriptor> descriptors_;
    bool timedOut_ = false;
    bool afterDescriptor_ = false;
    std::mutex sending_;
};

}  // namespace keldra
