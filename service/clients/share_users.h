#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace keldra {

/// Somebody who is connected to a share of a file server.
struct ShareUser {
    pid_t process = 0;  ///< of the file server, which serves him
    std::string share;  ///< its name
    std::string path;   ///< its folder, absolute
    std::string user;
    std::string address;  ///< of his computer
};

/// For whom a file server's processes ask, as the file server tells when somebody connects. May be used from any
/// thread.
class ShareUsers {
public:
    /// Beyond some thousands the oldest is forgotten.
    void connected(ShareUser user);
    /// `user`: empty for whoever has the share open.
    void disconnected(pid_t process, const std::string& share, const std::string& user);
    /// For whom this process asks about this file; nothing when that is not known. When several have the share open
    /// over one connection, any of them may be meant, and all are named, with commas between.
    std::optional<ShareUser> of(pid_t process, const std::string& file) const;

private:
    mutable std::mutex mutex_;
    std::deque<ShareUser> users_;  ///< the newest one last
};

}  // namespace keldra
