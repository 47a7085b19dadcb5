#include "service/server/socket_path.h"

#include "service/base/files.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

namespace keldra {

namespace {

using asio::local::stream_protocol;

/// A program that a killed service was just starting holds its socket until it runs itself.
constexpr std::chrono::milliseconds PREDECESSOR_TIME{2000};
constexpr std::chrono::milliseconds PREDECESSOR_LOOK{20};

/// Whether the process that began to listen at the other end is still there. What it started may hold its socket for
/// long on a busy machine.
bool listenerLives(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool known = ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0;
    return !known || ::kill(peer.pid, 0) == 0 || errno != ESRCH;
}

bool somebodyListens(const std::filesystem::path& socket) {
    asio::io_context io;
    stream_protocol::socket probe(io);
    asio::error_code error;
    probe.connect(stream_protocol::endpoint(socket.string()), error);
    return !error && listenerLives(probe.native_handle());
}

bool somebodyGoesOnListening(const std::filesystem::path& socket) {
    const auto until = std::chrono::steady_clock::now() + PREDECESSOR_TIME;
    while (somebodyListens(socket)) {
        if (std::chrono::steady_clock::now() >= until) return true;
        std::this_thread::sleep_for(PREDECESSOR_LOOK);
    }
    return false;
}

}  // namespace

std::string clearSocketPath(const std::filesystem::path& socket) {
    struct stat status {};
    if (::lstat(socket.c_str(), &status) != 0) return {};
    if (!S_ISSOCK(status.st_mode)) return socket.string() + " exists and is not a socket.";
    if (somebodyGoesOnListening(socket)) return "Another keldrad already listens on " + socket.string() + ".";
    return ::unlink(socket.c_str()) == 0 ? "" : "Cannot remove " + socket.string() + ": " + errorText(errno) + ".";
}

}  // namespace keldra
