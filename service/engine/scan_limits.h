#pragma once

#include "service/engine/scan_result.h"

class NORVConfig;

namespace keldra {

/// How much one file may cost, by whom it is scanned for.
struct EngineLimits {
    ScanLimits usual{.unpacked = uint64_t{4} << 30U, .members = 100000, .seconds = 300};
    ScanLimits realtime{.unpacked = uint64_t{128} << 20U, .members = 5000, .seconds = 120};

    bool operator==(const EngineLimits&) const = default;
};

/// The limits of the configuration's group "ScanLimits": UnpackedMegabytes, Members and Seconds, and the same for the
/// real-time scan, with "Realtime" before. What is zero, or no number, is as it is in a fresh configuration.
EngineLimits engineLimits(const NORVConfig& config);

}  // namespace keldra
