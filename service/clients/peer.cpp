#include "service/clients/peer.h"

#include <arpa/inet.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace keldra {

namespace {

constexpr std::size_t MOST_GROUPS = 65536;  // NGROUPS_MAX

std::optional<std::vector<gid_t>> groupsOf(int socket) {
    std::vector<gid_t> groups(64);
    while (groups.size() <= MOST_GROUPS) {
        auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        if (::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
            groups.resize(size / sizeof(gid_t));
            return groups;
        }
        if (errno != ERANGE) return std::nullopt;
        groups.resize(groups.size() * 4);
    }
    return std::nullopt;
}

std::string userName(uid_t uid) {
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found) return found->pw_name;
    return std::to_string(uid);
}

std::optional<Peer> localPeer(int socket) {
    ucred who{};
    socklen_t size = sizeof who;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) return std::nullopt;
    auto groups = groupsOf(socket);
    if (!groups) return std::nullopt;
    return Peer{.key = "user " + std::to_string(who.uid),
                .uid = who.uid,
                .gid = who.gid,
                .groups = std::move(*groups),
                .user = userName(who.uid),
                .process = who.pid,
                .name = userName(who.uid) + " (process " + std::to_string(who.pid) + ")"};
}

/// The part of an address that one client can choose freely is left out: of IPv6 the lower half.
std::optional<Peer> remotePeer(const sockaddr_storage& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    std::array<char, INET6_ADDRSTRLEN> network{};
    const void* bytes = &reinterpret_cast<const sockaddr_in&>(address).sin_addr;
    in6_addr prefix{};
    if (address.ss_family == AF_INET6) {
        const in6_addr& whole = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
        bytes = &whole;
        for (std::size_t i = 0; i < 8; ++i) prefix.s6_addr[i] = whole.s6_addr[i];
    }
    const void* const key = address.ss_family == AF_INET6 ? &prefix : bytes;
    if (!::inet_ntop(address.ss_family, bytes, text.data(), text.size()) ||
        !::inet_ntop(address.ss_family, key, network.data(), network.size()))
        return std::nullopt;
    Peer peer;
    peer.key = std::string("address ") + network.data();
    peer.name = text.data();
    return peer;
}

/// Takes from this thread alone what lets it pass over the rights of files. The C library's own calls would change all
/// threads of the process.
bool dropFileCapabilities() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> sets{};
    return ::syscall(SYS_capset, &header, sets.data()) == 0;
}

}  // namespace

std::optional<Peer> peerOf(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return std::nullopt;
    return address.ss_family == AF_UNIX ? localPeer(socket) : remotePeer(address);
}

bool takeFileRightsOf(const Peer& peer) {
    if (!peer.uid) return false;
    if (*peer.uid == 0) return ::geteuid() == 0;
    if (*peer.uid == ::geteuid()) return dropFileCapabilities();
    if (::syscall(SYS_setgroups, peer.groups.size(), peer.groups.data()) != 0) return false;
    ::setfsgid(peer.gid);
    ::setfsuid(*peer.uid);
    // These two tell only what held before; asked again with a number that is none, what holds now.
    const bool changed = static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == peer.gid &&
                         static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) == *peer.uid;
    return dropFileCapabilities() && changed;
}

}  // namespace keldra
