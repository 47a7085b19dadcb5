#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// A user to become.
struct Identity {
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
};

/// Nothing when there is no such user.
std::optional<Identity> identityOf(const std::string& user);

/// A program to run and how it is watched.
struct ChildRun {
    std::vector<std::string> arguments;               ///< the program first
    std::optional<Identity> identity;                 ///< whom it becomes, which only root can ask for; else us
    unsigned timeLimit = 0;                           ///< seconds
    std::function<void(std::string_view line)> line;  ///< called for each line it prints
    std::function<void()> pulse;                      ///< called about every second
    std::function<bool()> stopped;                    ///< asked several times a second; true ends the program
};

struct ChildResult {
    int status = -1;  ///< exit status; 127 when it could not be executed, -1 when a signal ended it
    bool timedOut = false;
    bool stopped = false;
    std::string confinement;  ///< the kernel's profile that it ran under, such as "freshclam (enforce)"; empty: none
};

/// Runs a program without a shell, in a process group of its own and with an environment of its own, and waits for it.
/// It gets no open files and no capabilities of ours, and ends with this process, whatever ends that.
ChildResult runChild(const ChildRun& run);

}  // namespace keldra
