#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace keldra {

/// A folder that is likely to be worth guarding.
struct ShareProposal {
    std::string path;
    std::string origin;  ///< "smb": a share of Samba, "nfs": an export, "mount": a mounted file system
    std::string name;    ///< the share's name, the clients of an export, or the type of the file system
};

/// Where this system says what it shares.
struct ShareOrigins {
    std::filesystem::path samba = "/etc/samba/smb.conf";
    std::filesystem::path exports = "/etc/exports";
    std::filesystem::path mounts = "/proc/self/mounts";
};

/// Folders that exist, each once: shares and exports before mounted file systems, those of the system itself left out.
/// A share whose path depends on who asks ("%U") counts with the folder before that.
std::vector<ShareProposal> proposeShares(const ShareOrigins& origins = {});

}  // namespace keldra
