#pragma once

#include "service/events/event.h"
#include "service/scanning/scan_status.h"

#include <cstdint>

namespace keldra {

/// What the journal is told of one report of a scan.
Event eventOfFind(const ScanFind& find, const ScanStatus& scan);
/// And of so many further ones; `kind`: FIND or NOT_SCANNED.
Event eventOfFurther(EventKind kind, const ScanStatus& scan, std::uint64_t count);

}  // namespace keldra
