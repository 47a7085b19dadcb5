#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace keldra {

/// Who is at the other end of a connection.
struct Peer {
    std::string key;           ///< what its limits are counted by: "user 1000" or "address 192.0.2.7"
    std::optional<uid_t> uid;  ///< of a local one
    gid_t gid = 0;
    std::vector<gid_t> groups;
    std::string user{};  ///< of a local one: his name, or his number
    pid_t process = 0;   ///< of a local one
    std::string name{};  ///< for people: the user's name with the process, or the address
};

/// Asks the kernel about a connected socket. Nothing when it does not tell.
std::optional<Peer> peerOf(int socket);

/// Gives the calling thread, for the rest of its life, the peer's rights to files and none of the service's own. False
/// when the service may not change to them (or the peer is not a local one): nothing may be opened then.
bool takeFileRightsOf(const Peer& peer);

}  // namespace keldra
