#pragma once

#include "norv/scan_config.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace keldra {

/// How long scans may take.
struct ScanTimes {
    std::chrono::milliseconds quick{1000};         ///< at first; what takes longer goes on beside the others
    std::chrono::milliseconds quickPressed{250};   ///< the same when many wait
    std::chrono::milliseconds background{120000};  ///< when nobody waits
    std::chrono::milliseconds grace{500};          ///< from being asked to stop to counting as hanging

    bool operator==(const ScanTimes&) const = default;
};

/// What the real-time scan watches and how it behaves.
struct OnAccessSettings {
    bool incoming = false;                ///< scan a file before it is opened and refuse what is infected
    bool outgoing = false;                ///< scan a file after it was written
    std::vector<std::string> folders;     ///< watched, with all below them; those that do not exist, once they do
    std::vector<std::string> neverScan;   ///< left out, with all below them; symbolic links in them are not followed
    std::vector<std::string> ownFolders;  ///< the service's, left out as well, wherever links lead them
    std::chrono::milliseconds timeLimit{10000};  ///< how long whoever opens a file may wait for its scan
    bool denyOnTimeout = false;                  ///< what happens then: refuse, else allow and log
    unsigned workers = 2;                        ///< files scanned at a time that somebody waits for
    std::size_t queueLimit = 256;        ///< files waiting at most; beyond that the time-out's answer is given at once
    std::size_t backgroundLimit = 8192;  ///< files that nobody waits for
    ScanTimes scanTimes;

    bool operator==(const OnAccessSettings&) const = default;
};

/// The settings that a record asks for; the service adds its own folders.
OnAccessSettings onAccessSettings(const NORVRealtimeScanConfig& record);

}  // namespace keldra
