#include "norv/file_descriptor.h"
#include "norv/ipc_message.h"
#include "norv/log.h"
#include "norv/message_codec.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <string_view>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* DEFAULT_SOCKET = "/run/keldra/keldrad.sock";
/// How long to wait before asking again when the service's queue of new connections is full.
constexpr milliseconds CONNECT_PAUSE(10);

/// Most replies are shorter, and are read at once.
constexpr std::size_t FIRST_READ = 4096;

/// The one connection of the process. Every failure closes it, so that no byte of a lost exchange is ever read as part
/// of a later one.
class Connection {
public:
    /// Sends a request's bytes and reads its reply.
    bool exchange(const std::string& path, const std::string& request, Clock::time_point deadline, IPCMessage& reply);

private:
    bool open(const std::string& path);
    bool connectTo(const sockaddr_un& address);
    bool isUsable() const;
    bool wait(short events) const;
    bool mayRetry(short events) const;
    bool send(std::string_view bytes) const;
    std::size_t receiveSome(char* bytes, std::size_t count) const;
    bool receiveFrame(std::string& payload);

    FileDescriptor socket_;
    bool surplus_ = false;  ///< whether bytes behind the last reply were read, which belong to nothing that was asked
    std::string path_;
    Clock::time_point deadline_;
};

bool Connection::exchange(const std::string& path, const std::string& request, Clock::time_point deadline,
                          IPCMessage& reply) {
    std::string payload;
    deadline_ = deadline;
    if (!socket_ || path != path_ || !isUsable()) {
        if (!open(path)) return false;
    }
    const bool done = send(request) && receiveFrame(payload) && decodeMessage(payload, reply);
    if (!done || surplus_) socket_.reset();
    return done;
}

bool Connection::open(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket_.reset();
    if (path.size() >= sizeof(address.sun_path)) return false;
    path.copy(address.sun_path, path.size());
    socket_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    path_ = path;
    if (socket_ && connectTo(address)) return true;
    socket_.reset();
    return false;
}

bool Connection::connectTo(const sockaddr_un& address) {
    for (;;) {
        if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return true;
        // A full queue is told at once for local sockets, and poll does not say when there is room again.
        if (errno != EAGAIN && errno != EINTR) return false;
        if (Clock::now() + CONNECT_PAUSE >= deadline_) return false;
        std::this_thread::sleep_for(CONNECT_PAUSE);
    }
}

/// Between two exchanges nothing may lie in the connection: neither its end nor bytes that nobody asked for.
bool Connection::isUsable() const {
    char byte = 0;
    return ::recv(socket_.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

/// Waits until the socket is ready, no longer than the deadline.
bool Connection::wait(short events) const {
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(deadline_ - Clock::now()).count();
        if (left <= 0) return false;
        pollfd ready{socket_.get(), events, 0};
        const int count = ::poll(&ready, 1, static_cast<int>(std::min<long>(left, std::numeric_limits<int>::max())));
        if (count > 0) return true;
        if (count < 0 && errno != EINTR) return false;
    }
}

/// After a call that failed: whether it is worth another try, once the socket is ready.
bool Connection::mayRetry(short events) const {
    return errno == EINTR || ((errno == EAGAIN || errno == EWOULDBLOCK) && wait(events));
}

bool Connection::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
        if (sent < 0 && !mayRetry(POLLOUT)) return false;
    }
    return true;
}

/// Reads what is there, at least one byte. 0: the peer is gone, or nothing came in time.
std::size_t Connection::receiveSome(char* bytes, std::size_t count) const {
    for (;;) {
        const ssize_t got = ::recv(socket_.get(), bytes, count, 0);
        if (got >= 0) return static_cast<std::size_t>(got);
        if (!mayRetry(POLLIN)) return 0;
    }
}

bool Connection::receiveFrame(std::string& payload) {
    std::array<char, FIRST_READ> first{};
    std::size_t have = 0;
    while (have < FRAME_HEADER_SIZE) {
        const std::size_t got = receiveSome(first.data() + have, first.size() - have);
        if (got == 0) return false;
        have += got;
    }
    const std::size_t length = frameLength(std::span(first).first<FRAME_HEADER_SIZE>());
    have -= FRAME_HEADER_SIZE;
    if (length > MAX_FRAME_PAYLOAD) return false;
    surplus_ = have > length;
    payload.assign(first.data() + FRAME_HEADER_SIZE, std::min(have, length));
    payload.resize(length);
    while (have < length) {
        const std::size_t got = receiveSome(payload.data() + have, length - have);
        if (got == 0) return false;
        have += got;
    }
    return true;
}

std::string socketPath() {
    const char* const path = std::getenv("KELDRA_SOCKET");
    return path && *path ? path : DEFAULT_SOCKET;
}

bool exchangeMessages(const IPCMessage& request, IPCMessage& reply, Clock::time_point deadline) {
    static std::mutex mutex;
    static Connection connection;
    std::string payload;
    const bool encoded = encodeMessage(request, payload);
    reply = IPCMessage();
    if (!encoded) return false;
    const std::lock_guard lock(mutex);
    return connection.exchange(socketPath(), frameHeader(payload.size()) + payload, deadline, reply);
}

}  // namespace

bool sendMessage(const IPCMessage& request, IPCMessage& reply, unsigned int timeout) noexcept {
    try {
        const int32_t command = request.commandID;
        const bool done = exchangeMessages(request, reply, Clock::now() + std::chrono::seconds(timeout));
        if (!done) NORV_TRACE("no reply from %s to command %d", socketPath().c_str(), command);
        return done;
    } catch (...) {
        reply.operation = IPCMessage::GET;
        reply.commandID = 0;
        reply.result = IPCMessage::RESULT_NONE;
        reply.params.clear();
        return false;
    }
}
