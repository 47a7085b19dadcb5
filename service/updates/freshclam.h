#pragma once

#include "norv/au_config.h"

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// What one run of freshclam is to do.
struct FreshclamPlan {
    enum class Problem { NONE, NO_SOURCE, BAD_SETTING };

    std::string configuration;           ///< text of its configuration file
    std::vector<std::string> databases;  ///< official databases, or "custom"
    int expected = 0;                    ///< how many databases it will look at
    Problem problem = Problem::NONE;     ///< why the settings cannot be followed
};

/// Where freshclam works.
struct FreshclamPlaces {
    std::filesystem::path signatures;
    std::filesystem::path log;
    std::string owner;  ///< the user whom it becomes when started by root
};

/// Whether a custom file or URL holds spyware signatures only: its name says "spyware", "adware" or "pua".
bool isSpywareSource(std::string_view nameOrUrl);

/// Turns the settings' sources and the selected components (bits UPDATE_…, without the engine's) into a plan. Official
/// source and mirror: the virus pattern is main, daily and bytecode, the spyware pattern main and daily. Custom files
/// and URLs: the spyware pattern is the files that say so in their name, or all when none does. A value that could not
/// stand in the configuration file as one word is a problem and logged by the setting's name.
FreshclamPlan planFreshclam(const NORVAUConfig& settings, uint8_t components, const FreshclamPlaces& places);

/// Tenths of an update, 1 to 9, from the lines that freshclam prints.
class FreshclamProgress {
public:
    explicit FreshclamProgress(int expected) : expected_(expected > 0 ? expected : 1) {}
    void line(std::string_view text);
    int tenths() const;

private:
    int expected_;
    int done_ = 0;
    int percent_ = 0;  ///< of the database under way
};

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
};

/// Runs a program without a shell, in a process group of its own and with an environment of its own, and waits for it.
/// It gets no open files and no capabilities of ours, and ends with this process, whatever ends that.
ChildResult runChild(const ChildRun& run);

}  // namespace keldra
