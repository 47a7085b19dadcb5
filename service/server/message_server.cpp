#include "service/server/message_server.h"

#include "norv/log.h"
#include "service/base/files.h"
#include "service/server/connection.h"
#include "service/server/socket_path.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <asio.hpp>
#include <optional>
#include <thread>
#include <utility>

namespace keldra {

namespace {

using asio::local::stream_protocol;

constexpr mode_t SOCKET_MODE = 0660;
constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};
/// Between two looks for connections whose time is up; shorter when the limits are.
constexpr std::chrono::milliseconds SWEEP_INTERVAL{1000};
/// Connections that went before the memory they had is given back to the system.
constexpr std::size_t MANY_CLOSED = 256;

}  // namespace

class MessageServer::Impl : public std::enable_shared_from_this<MessageServer::Impl> {
public:
    Impl(asio::io_context& io, ServerAccess access, const ServerLimits& limits, Answer answer)
        : acceptor_(io),
          pause_(io),
          sweep_(io),
          sweepInterval_(std::clamp(std::min(limits.frameTime, limits.idleTime) / 4, std::chrono::milliseconds(1),
                                    SWEEP_INTERVAL)),
          access_(std::move(access)),
          hub_(std::make_shared<ConnectionHub>(io, limits, std::move(answer))) {}

    bool listen(const std::filesystem::path& socket, std::string& error);
    void accept() noexcept;
    void stop();

private:
    bool bind(const std::filesystem::path& socket, asio::error_code& error);
    void accepted(const asio::error_code& error, stream_protocol::socket socket) noexcept;
    void take(stream_protocol::socket socket);
    void acceptLater(int error) noexcept;
    void acceptNext() noexcept;
    std::optional<Caller> callerAt(stream_protocol::socket& socket);
    bool closeOldest(std::chrono::milliseconds idle = std::chrono::milliseconds(0));
    void sweepLater();
    void sweep();

    stream_protocol::acceptor acceptor_;
    asio::steady_timer pause_;
    asio::steady_timer sweep_;
    const std::chrono::milliseconds sweepInterval_;
    bool sweeping_ = false;
    std::size_t closedBefore_ = 0;  ///< connections, at the last sweep
    const ServerAccess access_;
    const std::shared_ptr<ConnectionHub> hub_;
    std::filesystem::path path_;
};

bool MessageServer::Impl::bind(const std::filesystem::path& socket, asio::error_code& error) {
    acceptor_.open(stream_protocol(), error);
    if (!error) ::fcntl(acceptor_.native_handle(), F_SETFD, FD_CLOEXEC);
    // The file comes into being with these bits less the umask, so it is never wider than meant.
    if (!error && ::fchmod(acceptor_.native_handle(), SOCKET_MODE) != 0) error = {errno, asio::system_category()};
    if (!error) acceptor_.bind(stream_protocol::endpoint(socket.string()), error);
    if (error) return false;
    if (access_.group != static_cast<gid_t>(-1) && ::chown(socket.c_str(), static_cast<uid_t>(-1), access_.group) != 0)
        error = {errno, asio::system_category()};
    if (!error && ::chmod(socket.c_str(), SOCKET_MODE) != 0) error = {errno, asio::system_category()};
    if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
    return !error;
}

bool MessageServer::Impl::listen(const std::filesystem::path& socket, std::string& error) {
    if (socket.string().size() >= sizeof(sockaddr_un::sun_path)) {
        error = "The socket path " + socket.string() + " is too long.";
        return false;
    }
    error = clearSocketPath(socket);
    asio::error_code failure;
    if (error.empty() && !bind(socket, failure))
        error = "Cannot listen on " + socket.string() + ": " + failure.message() + ".";
    if (error.empty()) path_ = socket;
    return error.empty();
}

void MessageServer::Impl::accept() noexcept {
    while (acceptor_.is_open()) {
        try {
            acceptor_.async_accept(
                [self = shared_from_this()](const asio::error_code& error, stream_protocol::socket socket) {
                    self->accepted(error, std::move(socket));
                });
            return;
        } catch (const std::exception& error) {
            // Without memory for this there is none for anything else that could be done meanwhile.
            hub_->complaints.note(error.what(), hub_->connections.size());
            closeOldest();
            std::this_thread::sleep_for(ACCEPT_PAUSE);
        }
    }
}

void MessageServer::Impl::accepted(const asio::error_code& error, stream_protocol::socket socket) noexcept {
    if (!acceptor_.is_open()) return;
    if (error && error != asio::error::connection_aborted) return acceptLater(error.value());
    try {
        if (!error) take(std::move(socket));
    } catch (const std::exception&) {
        return acceptLater(ENOMEM);
    }
    accept();
}

void MessageServer::Impl::take(stream_protocol::socket socket) {
    ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
    auto caller = callerAt(socket);
    if (!caller || (hub_->connections.size() >= hub_->limits.connections && !closeOldest())) return;
    const auto connection = std::make_shared<Connection>(hub_, std::move(socket), std::move(*caller));
    hub_->connections.insert(connection);
    connection->readRequest();
    sweepLater();
}

/// No descriptor or memory for another connection: an idle one makes room, and the next try comes a little later. The
/// kernel says so before anybody has come, so one that has just been taken stays: its request is on its way.
void MessageServer::Impl::acceptLater(int error) noexcept {
    hub_->complaints.note("no connection can be accepted, error", static_cast<std::size_t>(error));
    closeOldest(ACCEPT_PAUSE);
    try {
        pause_.expires_after(ACCEPT_PAUSE);
        pause_.async_wait([self = shared_from_this()](const asio::error_code& stopped) {
            if (!stopped) self->acceptNext();
        });
    } catch (const std::exception&) {
        std::this_thread::sleep_for(ACCEPT_PAUSE);
        accept();
    }
}

/// Tries again once somebody has come.
void MessageServer::Impl::acceptNext() noexcept try {
    acceptor_.async_wait(stream_protocol::acceptor::wait_read, [self = shared_from_this()](const asio::error_code&) {
        if (self->acceptor_.is_open()) self->accept();
    });
} catch (const std::exception&) {
    accept();
}

/// Who has connected; nothing when that is nobody who may.
std::optional<Caller> MessageServer::Impl::callerAt(stream_protocol::socket& socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return {};
    const bool owner = peer.uid == 0 || peer.uid == ::geteuid();
    if (owner || std::find(access_.users.begin(), access_.users.end(), peer.uid) != access_.users.end())
        return Caller{.user = peer.uid, .owner = owner};
    hub_->complaints.note("refused the user with id", peer.uid);
    return {};
}

/// Of those that have waited for so long at least.
bool MessageServer::Impl::closeOldest(std::chrono::milliseconds idle) {
    const auto latest = std::chrono::steady_clock::now() - idle;
    std::shared_ptr<Connection> oldest;  // held, since closing takes it out of the set
    for (const auto& connection : hub_->connections) {
        if (!connection->expendable() || connection->since() > latest) continue;
        if (oldest == nullptr || connection->since() < oldest->since()) oldest = connection;
    }
    if (oldest == nullptr) return false;
    oldest->close();
    return true;
}

void MessageServer::Impl::sweepLater() {
    if (sweeping_) return;
    sweep_.expires_after(sweepInterval_);
    sweep_.async_wait([self = shared_from_this()](const asio::error_code& stopped) {
        self->sweeping_ = false;
        if (!stopped) self->sweep();
    });
    sweeping_ = true;
}

/// One timer for all connections: setting one for each step of each request cost more than the requests.
void MessageServer::Impl::sweep() {
    const auto now = std::chrono::steady_clock::now();
    const auto connections = hub_->connections;
    for (const auto& connection : connections)
        if (connection->expired(now)) connection->close();
    // Not before the last of many has gone: what is freed behind this would be kept.
    const bool quiet = std::exchange(closedBefore_, hub_->closed) == hub_->closed;
    if (quiet && hub_->closed >= MANY_CLOSED) {
        hub_->closed = closedBefore_ = 0;
        ::malloc_trim(0);
    }
    if (!hub_->connections.empty() || hub_->closed >= MANY_CLOSED) sweepLater();
}

void MessageServer::Impl::stop() {
    asio::error_code ignored;
    if (acceptor_.is_open()) {
        acceptor_.close(ignored);
        ::unlink(path_.c_str());
    }
    pause_.cancel();
    sweep_.cancel();
    const auto connections = hub_->connections;
    for (const auto& connection : connections) connection->close();
}

MessageServer::MessageServer(asio::io_context& io, ServerAccess access, const ServerLimits& limits, Answer answer)
    : impl_(std::make_shared<Impl>(io, std::move(access), limits, std::move(answer))) {}

MessageServer::~MessageServer() {
    try {
        impl_->stop();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The message server did not end well: %s", error.what());
    }
}

bool MessageServer::listen(const std::filesystem::path& socket, std::string& error) {
    return impl_->listen(socket, error);
}

void MessageServer::start() { impl_->accept(); }

void MessageServer::stop() { impl_->stop(); }

}  // namespace keldra
