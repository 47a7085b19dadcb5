#include "service/server/message_server.h"

#include "norv/log.h"
#include "norv/message_codec.h"
#include "service/base/files.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio.hpp>
#include <set>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

namespace keldra {

namespace {

using asio::local::stream_protocol;
using SteadyTime = std::chrono::steady_clock::time_point;

/// Holds most requests whole, so that one read fetches header and body.
constexpr std::size_t FIRST_BLOCK = 1024;
constexpr std::size_t READ_BLOCK = std::size_t{64} * 1024;
constexpr mode_t SOCKET_MODE = 0660;
constexpr std::chrono::milliseconds ACCEPT_PAUSE{100};
/// Between two looks for connections whose time is up; shorter when the limits are.
constexpr std::chrono::milliseconds SWEEP_INTERVAL{1000};
/// Lines about misbehaving peers that the log takes in a second.
constexpr unsigned COMPLAINTS_PER_SECOND = 10;
/// A program that a killed service was just starting holds its socket until it runs itself.
constexpr std::chrono::milliseconds PREDECESSOR_TIME{2000};
constexpr std::chrono::milliseconds PREDECESSOR_LOOK{20};

bool somebodyListens(const std::filesystem::path& socket) {
    asio::io_context io;
    stream_protocol::socket probe(io);
    asio::error_code error;
    probe.connect(stream_protocol::endpoint(socket.string()), error);
    return !error;
}

bool somebodyGoesOnListening(const std::filesystem::path& socket) {
    const auto until = std::chrono::steady_clock::now() + PREDECESSOR_TIME;
    while (somebodyListens(socket)) {
        if (std::chrono::steady_clock::now() >= until) return true;
        std::this_thread::sleep_for(PREDECESSOR_LOOK);
    }
    return false;
}

/// Removes what a service that was killed left behind. Returns what is in the way, empty when nothing is.
std::string clearPath(const std::filesystem::path& socket) {
    struct stat status {};
    if (::lstat(socket.c_str(), &status) != 0) return {};
    if (!S_ISSOCK(status.st_mode)) return socket.string() + " exists and is not a socket.";
    if (somebodyGoesOnListening(socket)) return "Another keldrad already listens on " + socket.string() + ".";
    return ::unlink(socket.c_str()) == 0 ? "" : "Cannot remove " + socket.string() + ": " + errorText(errno) + ".";
}

}  // namespace

class MessageServer::Impl : public std::enable_shared_from_this<MessageServer::Impl> {
public:
    Impl(asio::io_context& io, ServerAccess access, const ServerLimits& limits, Answer answer, Quick quick)
        : io_(io),
          acceptor_(io),
          pause_(io),
          sweep_(io),
          sweepInterval_(std::clamp(std::min(limits.frameTime, limits.idleTime) / 4, std::chrono::milliseconds(1),
                                    SWEEP_INTERVAL)),
          pool_(std::max(1U, limits.threads)),
          access_(std::move(access)),
          limits_(limits),
          answer_(std::move(answer)),
          quick_(std::move(quick)) {}

    bool listen(const std::filesystem::path& socket, std::string& error);
    void accept();
    void probe(std::function<void()> done) { asio::post(pool_, std::move(done)); }
    void stop();

private:
    class Connection;
    using ConnectionPtr = std::shared_ptr<Connection>;

    bool bind(const std::filesystem::path& socket, asio::error_code& error);
    void accepted(const asio::error_code& error, stream_protocol::socket socket);
    void retryLater(const asio::error_code& error);
    bool admits(stream_protocol::socket& socket);
    bool closeOldest();
    void sweepLater();
    void sweep();
    void complain(std::string_view what, std::size_t number);
    bool charge(std::size_t bytes);
    void release(std::size_t bytes) { buffered_ -= bytes; }
    std::string answerTo(const IPCMessage& request) const;

    asio::io_context& io_;
    stream_protocol::acceptor acceptor_;
    asio::steady_timer pause_;
    asio::steady_timer sweep_;
    const std::chrono::milliseconds sweepInterval_;
    bool sweeping_ = false;
    asio::thread_pool pool_;
    const ServerAccess access_;
    const ServerLimits limits_;
    const Answer answer_;
    const Quick quick_;
    std::filesystem::path path_;
    std::set<ConnectionPtr> connections_;
    std::size_t buffered_ = 0;
    SteadyTime complaintsSince_;
    unsigned complaints_ = 0;
};

/// One client. All of it runs on the thread of the io_context, but for handlers that take their time.
class MessageServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(Impl& server, stream_protocol::socket socket) : server_(server), socket_(std::move(socket)) {}
    ~Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void readRequest();
    void close();
    /// Whether nothing is lost to an honest client when this connection goes: no request of it is being handled.
    bool expendable() const { return !handling_; }
    SteadyTime since() const { return since_; }
    bool expired(SteadyTime now) const { return !handling_ && now - since_ >= limit_; }

private:
    void limitTime(std::chrono::milliseconds time);
    void readFirst();
    void takeFirst();
    void readBody();
    void handle();
    void send(const std::string& payload);
    void refuse(std::string_view what, std::size_t number);
    bool grow(std::size_t bytes);
    void shrink();

    Impl& server_;
    stream_protocol::socket socket_;
    std::array<char, FIRST_BLOCK> first_{};  ///< what came from the start of a frame on
    std::size_t have_ = 0;                   ///< bytes of it
    std::size_t length_ = 0;
    std::string body_;
    std::size_t charged_ = 0;
    bool handling_ = false;
    bool closed_ = false;
    SteadyTime since_;
    std::chrono::milliseconds limit_{};
};

void MessageServer::Impl::Connection::limitTime(std::chrono::milliseconds time) {
    since_ = std::chrono::steady_clock::now();
    limit_ = time;
}

void MessageServer::Impl::Connection::close() {
    if (std::exchange(closed_, true)) return;
    asio::error_code ignored;
    socket_.close(ignored);
    shrink();
    server_.connections_.erase(shared_from_this());
}

void MessageServer::Impl::Connection::refuse(std::string_view what, std::size_t number) {
    server_.complain(what, number);
    close();
}

bool MessageServer::Impl::Connection::grow(std::size_t bytes) {
    if (!server_.charge(bytes)) return false;
    charged_ += bytes;
    return true;
}

void MessageServer::Impl::Connection::shrink() { server_.release(std::exchange(charged_, 0)); }

void MessageServer::Impl::Connection::readRequest() {
    // A client that did not wait for its reply has sent the next request already.
    if (have_ >= FRAME_HEADER_SIZE) return takeFirst();
    limitTime(have_ == 0 ? server_.limits_.idleTime : server_.limits_.frameTime);
    readFirst();
}

void MessageServer::Impl::Connection::readFirst() {
    socket_.async_read_some(asio::buffer(first_.data() + have_, first_.size() - have_),
                            [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
                                if (error || self->closed_) return self->close();
                                if (self->have_ == 0) self->limitTime(self->server_.limits_.frameTime);
                                self->have_ += count;
                                if (self->have_ < FRAME_HEADER_SIZE) return self->readFirst();
                                self->takeFirst();
                            });
}

/// Header and as much of the body as came with it; what lies behind belongs to the next request.
void MessageServer::Impl::Connection::takeFirst() {
    length_ = frameLength(std::span(first_).first<FRAME_HEADER_SIZE>());
    if (length_ == 0 || length_ > MAX_FRAME_PAYLOAD) return refuse("a frame is refused for its length", length_);
    const std::size_t count = std::min(length_, have_ - FRAME_HEADER_SIZE);
    auto* const behind = first_.begin() + FRAME_HEADER_SIZE + count;
    body_.assign(first_.begin() + FRAME_HEADER_SIZE, behind);
    std::copy(behind, first_.begin() + have_, first_.begin());
    have_ -= FRAME_HEADER_SIZE + count;
    if (body_.size() < length_) return readBody();
    handle();
}

/// Takes memory only for a block more than what has arrived, whatever length was announced.
void MessageServer::Impl::Connection::readBody() {
    const std::size_t have = body_.size();
    const std::size_t want = std::min(length_ - have, READ_BLOCK);
    if (!grow(want)) return refuse("too much is being received at once, no room for", want);
    body_.resize(have + want);
    asio::async_read(socket_, asio::buffer(body_.data() + have, want),
                     [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                         if (error || self->closed_) return self->close();
                         if (self->body_.size() < self->length_) return self->readBody();
                         self->handle();
                     });
}

void MessageServer::Impl::Connection::handle() {
    IPCMessage request;
    if (!decodeMessage(body_, request)) return refuse("what came is not a message, bytes", body_.size());
    std::string().swap(body_);
    shrink();
    if (server_.quick_ && server_.quick_(request)) return send(server_.answerTo(request));
    handling_ = true;
    asio::post(server_.pool_,
               [self = shared_from_this(), server = server_.shared_from_this(), request = std::move(request)] {
                   asio::post(server->io_, [self = self, payload = server->answerTo(request)] {
                       self->handling_ = false;
                       if (!self->closed_) self->send(payload);
                   });
               });
}

void MessageServer::Impl::Connection::send(const std::string& payload) {
    if (payload.empty() || !grow(payload.size())) return refuse("a reply cannot be sent, bytes", payload.size());
    limitTime(server_.limits_.frameTime);
    body_ = frameHeader(payload.size()) + payload;
    asio::async_write(socket_, asio::buffer(body_),
                      [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                          if (error || self->closed_) return self->close();
                          std::string().swap(self->body_);
                          self->shrink();
                          self->readRequest();
                      });
}

/// The payload of the reply; empty when there is none that can be sent.
std::string MessageServer::Impl::answerTo(const IPCMessage& request) const {
    std::string payload;
    try {
        if (encodeMessage(answer_(request), payload)) return payload;
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "Command %d failed: %s", request.commandID, error.what());
    }
    IPCMessage refusal;
    refusal.operation = request.operation;
    refusal.commandID = request.commandID;
    refusal.result = IPCMessage::RESULT_ERROR;
    return encodeMessage(refusal, payload) ? payload : std::string();
}

bool MessageServer::Impl::charge(std::size_t bytes) {
    if (bytes > limits_.bufferedBytes - std::min(buffered_, limits_.bufferedBytes)) return false;
    buffered_ += bytes;
    return true;
}

void MessageServer::Impl::complain(std::string_view what, std::size_t number) {
    const auto now = std::chrono::steady_clock::now();
    if (now - complaintsSince_ > std::chrono::seconds(1)) {
        if (complaints_ > COMPLAINTS_PER_SECOND)
            NORV_LOG(NORV_LOG_REFUSED, "Socket: %u more lines of this kind", complaints_ - COMPLAINTS_PER_SECOND);
        complaintsSince_ = now;
        complaints_ = 0;
    }
    if (++complaints_ > COMPLAINTS_PER_SECOND) return;
    NORV_LOG(NORV_LOG_REFUSED, "Socket: %.*s %zu", static_cast<int>(what.size()), what.data(), number);
}

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
    error = clearPath(socket);
    asio::error_code failure;
    if (error.empty() && !bind(socket, failure))
        error = "Cannot listen on " + socket.string() + ": " + failure.message() + ".";
    if (error.empty()) path_ = socket;
    return error.empty();
}

void MessageServer::Impl::accept() {
    acceptor_.async_accept([self = shared_from_this()](const asio::error_code& error, stream_protocol::socket socket) {
        self->accepted(error, std::move(socket));
    });
}

void MessageServer::Impl::accepted(const asio::error_code& error, stream_protocol::socket socket) {
    if (!acceptor_.is_open()) return;
    if (!error) ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
    if (error && error != asio::error::connection_aborted) return retryLater(error);
    if (!error && admits(socket) && (connections_.size() < limits_.connections || closeOldest())) {
        const auto connection = std::make_shared<Connection>(*this, std::move(socket));
        connections_.insert(connection);
        connection->readRequest();
        sweepLater();
    }
    accept();
}

/// No descriptor or memory for another connection: an idle one makes room, and the next try comes a little later.
void MessageServer::Impl::retryLater(const asio::error_code& error) {
    complain("no connection can be accepted, error", static_cast<std::size_t>(error.value()));
    closeOldest();
    pause_.expires_after(ACCEPT_PAUSE);
    pause_.async_wait([self = shared_from_this()](const asio::error_code& stopped) {
        if (!stopped) self->accept();
    });
}

bool MessageServer::Impl::admits(stream_protocol::socket& socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
    const auto& users = access_.users;
    if (peer.uid == 0 || peer.uid == ::geteuid() || std::find(users.begin(), users.end(), peer.uid) != users.end())
        return true;
    complain("refused the user with id", peer.uid);
    return false;
}

bool MessageServer::Impl::closeOldest() {
    const Connection* oldest = nullptr;
    for (const auto& connection : connections_)
        if (connection->expendable() && (!oldest || connection->since() < oldest->since())) oldest = connection.get();
    if (!oldest) return false;
    const auto found = std::find_if(connections_.begin(), connections_.end(),
                                    [oldest](const auto& connection) { return connection.get() == oldest; });
    (*found)->close();
    return true;
}

void MessageServer::Impl::sweepLater() {
    if (std::exchange(sweeping_, true)) return;
    sweep_.expires_after(sweepInterval_);
    sweep_.async_wait([self = shared_from_this()](const asio::error_code& stopped) {
        self->sweeping_ = false;
        if (!stopped) self->sweep();
    });
}

/// One timer for all connections: setting one for each step of each request cost more than the requests.
void MessageServer::Impl::sweep() {
    const auto now = std::chrono::steady_clock::now();
    const auto connections = connections_;
    for (const auto& connection : connections)
        if (connection->expired(now)) connection->close();
    if (!connections_.empty()) sweepLater();
}

void MessageServer::Impl::stop() {
    asio::error_code ignored;
    if (acceptor_.is_open()) {
        acceptor_.close(ignored);
        ::unlink(path_.c_str());
    }
    pause_.cancel();
    sweep_.cancel();
    const auto connections = connections_;
    for (const auto& connection : connections) connection->close();
    pool_.join();
}

MessageServer::MessageServer(asio::io_context& io, ServerAccess access, const ServerLimits& limits, Answer answer,
                             Quick quick)
    : impl_(std::make_shared<Impl>(io, std::move(access), limits, std::move(answer), std::move(quick))) {}

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

void MessageServer::probe(std::function<void()> done) { impl_->probe(std::move(done)); }

void MessageServer::stop() { impl_->stop(); }

}  // namespace keldra
