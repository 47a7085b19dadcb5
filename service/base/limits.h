#pragma once

#include <cstdint>

namespace keldra {

/// Seconds that a file's reader may be kept waiting by the real-time scan, at most.
inline constexpr std::uint32_t MAX_SCAN_TIME_LIMIT = 300;

}  // namespace keldra
