#include "service/clients/client_server.h"

#include "norv/log.h"

#include <grp.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <list>
#include <thread>
#include <utility>
#include <vector>

namespace keldra {

namespace {

constexpr int BACKLOG = 256;
/// Between two tries to accept when descriptors, memory or threads ran out.
constexpr std::chrono::milliseconds PAUSE{100};

std::string because(const std::string& what) { return what + ": " + errorText(errno) + "."; }

std::string giveToGroup(const ClientSettings& settings) {
    const mode_t mode = settings.everyUser ? 0666 : 0660;
    if (!settings.group.empty()) {
        const group* const entry = ::getgrnam(settings.group.c_str());
        if (!entry) return "There is no group " + settings.group + ".";
        if (::chown(settings.socket.c_str(), static_cast<uid_t>(-1), entry->gr_gid) != 0)
            return because("The socket " + settings.socket + " cannot be given to the group " + settings.group);
    }
    if (::chmod(settings.socket.c_str(), mode) != 0)
        return because("The rights of " + settings.socket + " cannot be set");
    return {};
}

/// Removes a socket that nobody listens on any more.
bool removeStale(const sockaddr_un& address) {
    struct stat status {};
    if (::lstat(address.sun_path, &status) != 0) return errno == ENOENT;
    if (!S_ISSOCK(status.st_mode)) return errno = EEXIST, false;
    const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return errno = EADDRINUSE, false;
    return ::unlink(address.sun_path) == 0;
}

FileDescriptor listenLocally(const ClientSettings& settings, std::string& problem) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (settings.socket.size() >= sizeof address.sun_path)
        return problem = "The path of the socket is too long: " + settings.socket, FileDescriptor();
    std::memcpy(address.sun_path, settings.socket.c_str(), settings.socket.size());
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Nobody but ourselves may connect before its rights are set.
    if (!socket || !removeStale(address) || ::fchmod(socket.get(), 0600) != 0 ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.get(), BACKLOG) != 0)
        return problem = because("Cannot listen on " + settings.socket), FileDescriptor();
    problem = giveToGroup(settings);
    return problem.empty() ? std::move(socket) : FileDescriptor();
}

/// `where`: "address:port", of IPv6 "[address]:port".
FileDescriptor listenOn(const std::string& where, std::string& problem) {
    const std::size_t colon = where.rfind(':');
    std::string host = where.substr(0, colon == std::string::npos ? 0 : colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (host.empty() || ::getaddrinfo(host.c_str(), where.c_str() + colon + 1, &hints, &found) != 0)
        return problem = "Not an address with a port: " + where + ".", FileDescriptor();
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> address(found, &::freeaddrinfo);
    FileDescriptor socket(::socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int yes = 1;
    if (!socket || ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        ::bind(socket.get(), address->ai_addr, address->ai_addrlen) != 0 || ::listen(socket.get(), BACKLOG) != 0)
        return problem = because("Cannot listen on " + where), FileDescriptor();
    return socket;
}

}  // namespace

/// The sockets, the thread that accepts and one thread for each connection.
class ClientServer::Listener {
public:
    Listener(const ClientSettings& settings, const ClientHooks& hooks)
        : commons_(settings, hooks),
          connections_(settings.connections, settings.connectionsEach),
          wake_(::eventfd(0, EFD_CLOEXEC)) {}
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() { stop(); }

    /// Returns what could not be had.
    std::string listen();
    std::uint64_t connections() const { return connections_.taken(); }
    std::uint64_t scans() const { return commons_.scans.taken(); }

private:
    struct Served {
        Served(FileDescriptor socket, std::chrono::seconds sendTime) : connection(std::move(socket), sendTime) {}
        ClientConnection connection;
        std::atomic<bool> ended = false;
        std::jthread thread;
    };

    void accept(const std::stop_token& stop);
    void admit(int listening);
    void serve(Served& served, const Peer& peer);
    void reap();
    void stop();

    ClientCommons commons_;
    ClientLimits connections_;
    FileDescriptor wake_;
    std::vector<FileDescriptor> listening_;
    std::mutex mutex_;
    std::list<Served> served_;
    std::stop_source stopping_;
    std::jthread accepting_;
};

std::string ClientServer::Listener::listen() {
    std::string problems;
    const auto add = [&](FileDescriptor socket, const std::string& problem) {
        if (socket) listening_.push_back(std::move(socket));
        if (!problem.empty()) problems += (problems.empty() ? "" : " ") + problem;
    };
    std::string problem;
    if (!commons_.settings.socket.empty()) {
        FileDescriptor socket = listenLocally(commons_.settings, problem);
        add(std::move(socket), problem);
    }
    for (const std::string& address : commons_.settings.addresses) {
        problem.clear();
        FileDescriptor socket = listenOn(address, problem);
        add(std::move(socket), problem);
    }
    if (!listening_.empty()) accepting_ = std::jthread([this](const std::stop_token& stop) { accept(stop); });
    return problems;
}

void ClientServer::Listener::accept(const std::stop_token& stop) {
    std::vector<pollfd> wanted{{wake_.get(), POLLIN, 0}};
    for (const FileDescriptor& socket : listening_) wanted.push_back({socket.get(), POLLIN, 0});
    while (!stop.stop_requested()) {
        if (::poll(wanted.data(), wanted.size(), 10'000) < 0 && errno != EINTR) std::this_thread::sleep_for(PAUSE);
        for (std::size_t i = 1; i < wanted.size() && !stop.stop_requested(); ++i) {
            try {
                if (wanted[i].revents != 0) admit(wanted[i].fd);
            } catch (const std::exception& error) {
                NORV_LOG(NORV_LOG_ERROR, "A client cannot be served: %s", error.what());
                std::this_thread::sleep_for(PAUSE);
            }
        }
        reap();
    }
}

/// One too many is told nothing: its connection ends, as clamd's does when its queue is full.
void ClientServer::Listener::admit(int listening) {
    FileDescriptor socket(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) {
        if (errno != EAGAIN && errno != ECONNABORTED) std::this_thread::sleep_for(PAUSE);
        return;
    }
    const auto peer = peerOf(socket.get());
    if (!peer) return;
    auto share = connections_.take(peer->key);
    if (!share) {
        NORV_LOG(NORV_LOG_WARNING, "Too many connections of %s", peer->name.c_str());
        return;
    }
    const std::lock_guard lock(mutex_);
    Served& served = served_.emplace_back(std::move(socket), commons_.settings.sendTime);
    try {
        served.thread = std::jthread([this, &served, peer = *peer, share = std::move(*share)] { serve(served, peer); });
    } catch (...) {
        served_.pop_back();
        throw;
    }
}

void ClientServer::Listener::serve(Served& served, const Peer& peer) {
    try {
        ClientSession(commons_, served.connection, peer, stopping_.get_token()).run();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "A connection of %s failed: %s", peer.name.c_str(), error.what());
    }
    served.connection.hangUp();
    served.ended = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t told = ::write(wake_.get(), &one, sizeof one);
}

void ClientServer::Listener::reap() {
    std::list<Served> ended;
    {
        const std::lock_guard lock(mutex_);
        for (auto place = served_.begin(); place != served_.end();) {
            const auto next = std::next(place);
            if (place->ended) ended.splice(ended.end(), served_, place);
            place = next;
        }
    }
    pollfd woken{wake_.get(), POLLIN, 0};
    std::uint64_t count = 0;
    if (::poll(&woken, 1, 0) > 0 && ::read(wake_.get(), &count, sizeof count) < 0) return;
}

void ClientServer::Listener::stop() {
    stopping_.request_stop();
    accepting_.request_stop();
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t told = ::write(wake_.get(), &one, sizeof one);
    if (accepting_.joinable()) accepting_.join();
    {
        const std::lock_guard lock(mutex_);
        for (const Served& served : served_) served.connection.hangUp();
    }
    served_.clear();
    if (!listening_.empty() && !commons_.settings.socket.empty()) ::unlink(commons_.settings.socket.c_str());
}

ClientServer::ClientServer(ClientHooks hooks) : hooks_(std::move(hooks)) {}

ClientServer::~ClientServer() { stop(); }

void ClientServer::configure(const ClientSettings& settings) {
    const std::lock_guard lock(mutex_);
    if (settings == settings_ && problem_.empty()) return;
    listener_.reset();
    settings_ = settings;
    problem_.clear();
    if (!settings.enabled) return;
    listener_ = std::make_unique<Listener>(settings, hooks_);
    problem_ = listener_->listen();
    if (!problem_.empty()) NORV_LOG(NORV_LOG_ERROR, "Scans for other programs: %s", problem_.c_str());
}

void ClientServer::stop() {
    const std::lock_guard lock(mutex_);
    listener_.reset();
}

ClientServerState ClientServer::state() const {
    const std::lock_guard lock(mutex_);
    return {listener_ && problem_.empty(), problem_, listener_ ? listener_->connections() : 0,
            listener_ ? listener_->scans() : 0};
}

}  // namespace keldra
