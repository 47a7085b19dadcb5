#pragma once

#include <prometheus/metric_family.h>

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace keldra {

/// What the service knows of itself and the server when its metrics are asked for. Times are seconds since the epoch,
/// 0: never. None of it names a file, a user or an address.
struct ServerFacts {
    std::string version;
    std::string engineVersion;
    std::string databaseVersion;
    std::int64_t started = 0;

    std::string level;                                         ///< of protection
    std::vector<std::pair<std::string, std::string>> reasons;  ///< code and severity of each reason against it
    std::uint64_t untreated = 0;                               ///< infected files that lie where they were found

    std::uint64_t signatures = 0;
    std::int64_t signatureTime = 0;  ///< when they were built
    bool scannerWorks = false;
    std::uint64_t scannerRestarts = 0;
    std::uint64_t scannersHanging = 0;

    bool realtimeWanted = false;
    bool realtimeGuards = false;
    std::uint64_t realtimeHanging = 0;               ///< files whose file system does not answer
    std::array<std::uint64_t, 3> realtimeWaiting{};  ///< for a quick scan, for a slow one, in the background
    std::array<std::int64_t, 2> lastScans{};         ///< end of the last complete manual and scheduled scan
    std::array<std::uint64_t, 2> lastNotScanned{};   ///< files that these did not scan wholly
    std::int64_t lastUpdate = 0;                     ///< the last one that succeeded
    bool updateFailed = false;                       ///< the last one

    std::uint64_t clientConnections = 0;
    std::uint64_t clientScans = 0;  ///< files of other programs under scan or waiting
    std::uint64_t sessions = 0;
    std::uint64_t quarantineFiles = 0;
    std::uint64_t quarantineBytes = 0;
    std::uint64_t quarantineLimit = 0;     ///< bytes; 0: none
    std::uint64_t stateFree = UINT64_MAX;  ///< bytes; the greatest number: not known
};

std::vector<prometheus::MetricFamily> serverMetrics(const ServerFacts& facts);

}  // namespace keldra
