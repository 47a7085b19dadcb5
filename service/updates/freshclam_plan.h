#pragma once

#include "norv/au_config.h"

#include <cstdint>
#include <filesystem>
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

}  // namespace keldra
