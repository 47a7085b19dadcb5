#include "service/clients/client_connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

namespace keldra {

namespace {

constexpr std::size_t LONGEST_COMMAND = 8192;  // a path of 4096 bytes, its command, and room
constexpr std::size_t PIECE = std::size_t{64} << 10U;
constexpr std::size_t MOST_DESCRIPTORS = 8;  // that came and were not asked for yet

int millisecondsUntil(ClientConnection::Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - ClientConnection::Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3'600'000));
}

/// Whether the socket becomes ready; an end of the connection counts.
bool await(int socket, short events, ClientConnection::Clock::time_point deadline) {
    pollfd wanted{socket, events, 0};
    int ready = 0;
    do ready = ::poll(&wanted, 1, millisecondsUntil(deadline));
    while (ready < 0 && errno == EINTR);
    return ready > 0;
}

/// Takes over the descriptors of a message. Those beyond what is kept are closed.
void adoptDescriptors(msghdr& message, std::deque<FileDescriptor>& kept) {
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
        const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t i = 0; i < count; ++i) {
            int number = -1;
            std::memcpy(&number, CMSG_DATA(part) + i * sizeof(int), sizeof number);
            FileDescriptor descriptor(number);
            if (kept.size() < MOST_DESCRIPTORS) kept.push_back(std::move(descriptor));
        }
    }
}

}  // namespace

/// Takes what has come, or waits for something to come.
bool ClientConnection::fill(Clock::time_point deadline) {
    if (!await(socket_.get(), POLLIN, deadline)) return timedOut_ = true, false;
    std::array<char, PIECE> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init): written by the kernel
    iovec place{piece.data(), piece.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(MOST_DESCRIPTORS * sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t got = ::recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
    if (got > 0 || (got == 0 && message.msg_controllen > 0)) adoptDescriptors(message, descriptors_);
    if (got <= 0) return false;
    buffer_.append(piece.data(), static_cast<std::size_t>(got));
    return true;
}

std::optional<ClientLine> ClientConnection::line(Clock::time_point deadline) {
    // The byte that a descriptor came with is no part of the next command.
    while (afterDescriptor_ && buffer_.empty() && fill(deadline)) {
    }
    if (afterDescriptor_ && !buffer_.empty() && buffer_.front() == '\0') buffer_.erase(0, 1);
    afterDescriptor_ = false;
    std::size_t seen = 0;
    while (true) {
        if (!buffer_.empty()) {
            const char first = buffer_.front();
            const char end = first == 'z' ? '\0' : '\n';
            const std::size_t at = buffer_.find(end, seen);
            if (at != std::string::npos) {
                const bool prefixed = first == 'z' || first == 'n';
                ClientLine line{buffer_.substr(prefixed ? 1 : 0, at - (prefixed ? 1 : 0)), prefixed, end};
                if (end == '\n' && !line.text.empty() && line.text.back() == '\r') line.text.pop_back();
                buffer_.erase(0, at + 1);
                return line;
            }
            seen = buffer_.size();
        }
        if (buffer_.size() > LONGEST_COMMAND || !fill(deadline)) return std::nullopt;
    }
}

bool ClientConnection::read(std::uint64_t bytes, std::chrono::seconds patience,
                            const std::function<bool(std::string_view)>& take) {
    while (bytes > 0) {
        if (buffer_.empty() && !fill(Clock::now() + patience)) return false;
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(bytes, buffer_.size()));
        if (!take(std::string_view(buffer_).substr(0, size))) return false;
        buffer_.erase(0, size);
        bytes -= size;
    }
    return true;
}

FileDescriptor ClientConnection::descriptor(Clock::time_point deadline) {
    while (descriptors_.empty() && fill(deadline)) {
    }
    if (descriptors_.empty()) return {};
    FileDescriptor next = std::move(descriptors_.front());
    descriptors_.pop_front();
    if (!buffer_.empty() && buffer_.front() == '\0')
        buffer_.erase(0, 1);
    else
        afterDescriptor_ = buffer_.empty();
    return next;
}

bool ClientConnection::send(std::string_view text) {
    const std::lock_guard lock(sending_);
    const auto deadline = Clock::now() + sendTime_;
    while (!text.empty()) {
        const ssize_t sent = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        const bool full = sent < 0 && (errno == EAGAIN || errno == EINTR);
        if (sent < 0 && (!full || !await(socket_.get(), POLLOUT, deadline))) return false;
        if (sent > 0) text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void ClientConnection::hangUp() const { ::shutdown(socket_.get(), SHUT_RDWR); }

}  // namespace keldra
