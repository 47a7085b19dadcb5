#pragma once

#include "service/realtime/on_access_settings.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace keldra {

/// A mount that this process sees, from /proc/self/mountinfo.
struct Mount {
    std::uint64_t id = 0;
    std::string device;   ///< "major:minor" of the file system
    std::string root;     ///< the folder of the file system that is mounted
    std::string point;    ///< where it is mounted
    bool remote = false;  ///< another machine or a program answers for it
    bool ofUser = false;  ///< the program is an ordinary user's
};

/// All but the kernel's own file systems, which hold no files that could be infected.
std::vector<Mount> currentMounts();

/// A path on a file system that has a part in what is watched.
struct PlaceToMark {
    std::string path;
    std::string remoteDevice;  ///< "major:minor" when another machine or a program answers for it

    bool operator==(const PlaceToMark&) const = default;
};

/// Where the folders of the settings are at the moment.
struct Places {
    std::vector<std::string> watched;    ///< without symbolic links, by every name that a mount gives them
    std::vector<std::string> own;        ///< the service's folders, which `neverScan` holds too
    std::vector<std::string> neverScan;  ///< the same, and as set
    std::vector<std::string> troubles;   ///< what cannot be watched or left out, and why, for the log
    std::vector<PlaceToMark> toMark;     ///< each file system once at least
    std::set<std::uint64_t> mounts;      ///< ids of those in which paths mean what they mean here

    bool operator==(const Places&) const = default;
    /// Whether what this path leads to is to be scanned.
    bool concern(const std::string& path) const;
};

/// Looks the folders up, which waits for the file systems that they lie on.
Places placesOf(const OnAccessSettings& settings, const std::vector<Mount>& mounts);

/// The same settings with those folders only that lie on file systems of this machine, as far as their paths tell.
OnAccessSettings withoutRemoteFolders(const OnAccessSettings& settings, const std::vector<Mount>& mounts);

/// Whether a descriptor was opened through a mount that this process does not see, as in a container. Its path is then
/// another system's. False where the kernel does not tell (before 5.8).
bool openedElsewhere(int fd, const Places& places);

/// The path that such a file has here, empty when it cannot be told. Needs CAP_DAC_READ_SEARCH.
std::string pathHere(int fd, const Places& places);

}  // namespace keldra
