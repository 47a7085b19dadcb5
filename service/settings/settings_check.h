#pragma once

#include "norv/au_config.h"
#include "norv/scan_config.h"

#include <string>

namespace keldra {

/// Makes a settings record fit to be stored: numbers are brought into their range, times into the form "hh:mm:ss",
/// folders into their shortest form. Returns what cannot be mended, empty when nothing is wrong; the record is then not
/// to be stored.
std::string checkSettings(NORVManualScanConfig& record);
std::string checkSettings(NORVRealtimeScanConfig& record);
std::string checkSettings(NORVScheduledScanConfig& record);
std::string checkSettings(NORVScheduledAUConfig& record);

}  // namespace keldra
