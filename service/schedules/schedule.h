#pragma once

#include "norv/au_config.h"
#include "norv/scan_config.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace keldra {

/// Seconds after midnight of a text "hh:mm:ss" (fields may have one digit, the seconds may be left out). Nothing for
/// anything that is not of this form or no time of day. A schedule whose time is none runs at midnight.
std::optional<int32_t> parseTimeOfDay(std::string_view text);

/// The next scheduled scan strictly after `after` (both seconds since the epoch), in the process's time zone. Nothing
/// when the schedule is off. A month without the day: its last day. A time that the clocks skip: the first instant
/// after the gap; a time that they repeat: its first pass only. A week day outside 0..6 or a month day outside 1..31
/// counts as the nearest that is inside.
std::optional<int64_t> nextScan(const NORVScheduledScanConfig& schedule, int64_t after);

/// The next scheduled update strictly after `after`, with the same rules for days and times. Hourly: at the minute and
/// second of the schedule's time. DAILY and WEEKLY: every `period` days or weeks, counted from the day or week (Sunday
/// first) of `anchor`, the last planned run; without one (0) the next fitting time. A period below 1 counts as 1, above
/// 366 days or 53 weeks as these.
std::optional<int64_t> nextUpdate(const NORVScheduledAUConfig& schedule, int64_t anchor, int64_t after);

}  // namespace keldra
