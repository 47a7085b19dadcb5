#include "service/engine/scan_limits.h"

#include "norv/norv_config.h"

#include <algorithm>
#include <string>

namespace keldra {

namespace {

constexpr uint32_t MOST_MEGABYTES = uint32_t{1} << 20U;

uint32_t numberOr(const NORVConfig& config, const std::string& name, uint64_t fallback, uint32_t most) {
    const auto number = configValueOr(config, "ScanLimits", name, static_cast<uint32_t>(fallback));
    return std::min(number != 0 ? number : static_cast<uint32_t>(fallback), most);
}

ScanLimits limitsOf(const NORVConfig& config, const std::string& prefix, const ScanLimits& fallback) {
    const uint64_t megabytes = numberOr(config, prefix + "UnpackedMegabytes", fallback.unpacked >> 20U, MOST_MEGABYTES);
    return {.unpacked = megabytes << 20U,
            .members = numberOr(config, prefix + "Members", fallback.members, UINT32_MAX),
            .seconds = numberOr(config, prefix + "Seconds", fallback.seconds, UINT32_MAX)};
}

}  // namespace

EngineLimits engineLimits(const NORVConfig& config) {
    const EngineLimits usual;
    return {.usual = limitsOf(config, "", usual.usual), .realtime = limitsOf(config, "Realtime", usual.realtime)};
}

}  // namespace keldra
