#pragma once

#include "service/quarantine/store_folder.h"

#include <vector>

namespace keldra {

/// Completes or undoes at a start whatever was interrupted before, and returns the records of all items that are there
/// then. Nothing is deleted for want of being readable.
std::vector<QuarantineRecord> repairQuarantine(const StoreFolder& store);

}  // namespace keldra
