#include "tests/harness/clamd_client.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

namespace {

constexpr std::size_t CHUNK = std::size_t{64} << 10U;

bool sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::string answerOf(int fd) {
    std::string answer;
    std::array<char, 512> piece{};
    for (ssize_t got = 0; (got = ::recv(fd, piece.data(), piece.size(), 0)) > 0;)
        answer.append(piece.data(), static_cast<std::size_t>(got));
    while (!answer.empty() && answer.back() == '\0') answer.pop_back();
    return answer;
}

/// A chunk with its length before it, in one piece: so it costs one call.
bool sendChunk(int fd, std::string_view content) {
    const std::uint32_t length = htonl(static_cast<std::uint32_t>(content.size()));
    std::string bytes(sizeof length, '\0');
    std::memcpy(bytes.data(), &length, sizeof length);
    return sendAll(fd, bytes.append(content));
}

}  // namespace

int ClamdClient::connected() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socket_.c_str(), std::min(socket_.size() + 1, sizeof address.sun_path));
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

std::string ClamdClient::stream(std::string_view content) const {
    const int fd = connected();
    if (fd < 0) return {};
    bool sent = sendAll(fd, std::string_view("zINSTREAM\0", 10));
    for (std::size_t at = 0; sent && at < content.size(); at += CHUNK) sent = sendChunk(fd, content.substr(at, CHUNK));
    sendChunk(fd, {});
    std::string answer = answerOf(fd);
    ::close(fd);
    return answer;
}

bool sendDescriptor(int socket, int file) {
    char nothing = 0;
    iovec place{&nothing, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(part), &file, sizeof file);
    return ::sendmsg(socket, &message, MSG_NOSIGNAL) == 1;
}

std::string ClamdClient::descriptor(int file) const {
    const int fd = connected();
    if (fd < 0) return {};
    sendAll(fd, std::string_view("zFILDES\0", 8));
    sendDescriptor(fd, file);
    std::string answer = answerOf(fd);
    ::close(fd);
    return answer;
}

void ClamdClient::stall(int milliseconds) const {
    const int fd = connected();
    if (fd < 0) return;
    sendAll(fd, std::string_view("zINSTREAM\0\0\0\1\0x", 15));
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    ::close(fd);
}
