#pragma once

namespace keldra {

/// The version of the service and its command line.
inline constexpr const char* VERSION = KELDRA_VERSION;

}  // namespace keldra
