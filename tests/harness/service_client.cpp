#include "tests/harness/service_client.h"

#include "norv/message_codec.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <span>

using Clock = std::chrono::steady_clock;

namespace {

/// Waits until there is something to read. False when the time ran out.
bool readable(int fd, Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd wanted{fd, POLLIN, 0};
    return poll(&wanted, 1, static_cast<int>(std::max<long>(left, 0))) > 0;
}

}  // namespace

ServiceClient::ServiceClient(const std::filesystem::path& socket) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.string().copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
    ::close(fd_);
    fd_ = -1;
}

ServiceClient::~ServiceClient() {
    if (fd_ >= 0) ::close(fd_);
}

bool ServiceClient::sendBytes(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool ServiceClient::receive(std::string& bytes, std::size_t count, Clock::time_point end) {
    std::array<char, 65536> buffer{};
    while (bytes.size() < count) {
        if (!readable(fd_, end)) return false;
        const ssize_t got = recv(fd_, buffer.data(), std::min(buffer.size(), count - bytes.size()), 0);
        if (got <= 0) return false;
        bytes.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return true;
}

std::optional<std::string> ServiceClient::receiveFrame(std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    std::string header;
    std::string payload;
    if (!receive(header, FRAME_HEADER_SIZE, end)) return std::nullopt;
    const std::size_t length = frameLength(std::span<const char, FRAME_HEADER_SIZE>(header.data(), FRAME_HEADER_SIZE));
    if (!receive(payload, length, end)) return std::nullopt;
    return payload;
}

std::optional<IPCMessage> ServiceClient::ask(const IPCMessage& request, std::chrono::milliseconds timeout) {
    std::string payload;
    if (!connected() || !encodeMessage(request, payload)) return std::nullopt;
    if (!sendBytes(frameHeader(payload.size()) + payload)) return std::nullopt;
    const std::optional<std::string> answer = receiveFrame(timeout);
    IPCMessage reply;
    if (!answer || !decodeMessage(*answer, reply)) return std::nullopt;
    return reply;
}

bool ServiceClient::closedWithin(std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    std::array<char, 4096> dropped{};
    while (readable(fd_, end)) {
        if (recv(fd_, dropped.data(), dropped.size(), 0) <= 0) return true;
    }
    return false;
}

std::optional<IPCMessage> askService(const std::filesystem::path& socket, const IPCMessage& request,
                                     std::chrono::milliseconds timeout) {
    return ServiceClient(socket).ask(request, timeout);
}
