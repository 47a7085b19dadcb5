#include "service/server/notify.h"

#include "service/base/files.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace keldra {

void notifyManager(const std::string& state) {
    const char* const path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (!path || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    // An "@" stands for a name outside of the file system.
    if (path[0] == '@') address.sun_path[0] = '\0';
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket) return;
    // A manager that does not read its mail is not waited for for ever.
    constexpr timeval PATIENCE{1, 0};
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &PATIENCE, sizeof PATIENCE);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    ::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
             length);
}

}  // namespace keldra
