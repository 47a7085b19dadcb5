#pragma once

#include "norv/ipc_message.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

/// A connection to a service's socket, for tests that talk to it directly: whole messages, or any bytes at all.
class ServiceClient {
public:
    explicit ServiceClient(const std::filesystem::path& socket);
    ~ServiceClient();
    ServiceClient(const ServiceClient&) = delete;
    ServiceClient& operator=(const ServiceClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    /// Sends a request and waits for its reply. Nothing when the connection was cut or the time ran out.
    std::optional<IPCMessage> ask(const IPCMessage& request,
                                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
    /// Sends bytes as they are.
    bool sendBytes(std::string_view bytes);
    /// The payload of the next frame. Nothing when the connection was cut or the time ran out.
    std::optional<std::string> receiveFrame(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    /// Whether the other side closes the connection within the time (what it sends before is dropped).
    bool closedWithin(std::chrono::milliseconds timeout);

private:
    bool receive(std::string& bytes, std::size_t count, std::chrono::steady_clock::time_point end);

    int fd_ = -1;
};

/// One exchange over a connection of its own.
std::optional<IPCMessage> askService(const std::filesystem::path& socket, const IPCMessage& request,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(10));
