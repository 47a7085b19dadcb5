#include "service/schedules/schedule.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <ctime>

namespace keldra {

namespace {

constexpr int64_t DAY = 86400;
constexpr int64_t HOUR = 3600;

/// Floor division, also for times before the epoch.
int64_t floorDiv(int64_t a, int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

/// What the clocks on the wall show at an instant, as seconds since the epoch of a calendar without time zone.
int64_t wallTime(int64_t instant) {
    const time_t t = instant;
    struct tm local {};
    if (!localtime_r(&t, &local)) return instant;
    return instant + local.tm_gmtoff;
}

/// The first instant at which the clocks show `wall`, or, when they skip it, the first after the gap. Two days around
/// it are looked at; no zone's offset is larger and none changes twice within them.
int64_t instantOf(int64_t wall) {
    const int64_t before = wall - DAY;
    const int64_t after = wall + DAY;
    const int64_t early = wall - (wallTime(before) - before);
    const int64_t late = wall - (wallTime(after) - after);
    const auto [first, second] = std::minmax(early, late);
    if (wallTime(first) == wall) return first;
    if (wallTime(second) == wall) return second;
    int64_t low = before, high = after;  // the clocks jump over `wall` somewhere between the two
    while (low + 1 < high) {
        const int64_t middle = low + (high - low) / 2;
        (wallTime(middle) >= wall ? high : low) = middle;
    }
    return high;
}

/// Days since the epoch on the local calendar.
int64_t localDay(int64_t instant) { return floorDiv(wallTime(instant), DAY); }

std::chrono::year_month_day dateOf(int64_t day) { return std::chrono::sys_days(std::chrono::days(day)); }

int32_t weekDayOf(int64_t day) {
    return static_cast<int32_t>(std::chrono::weekday(std::chrono::sys_days(std::chrono::days(day))).c_encoding());
}

/// Weeks begin on Sunday; the epoch was a Thursday.
int64_t weekOf(int64_t day) { return floorDiv(day + 4, 7); }

bool isMonthDay(int64_t day, uint32_t wanted) {
    const auto date = dateOf(day);
    const auto last = (date.year() / date.month() / std::chrono::last).day();
    return date.day() == std::min(std::chrono::day(std::clamp(wanted, 1U, 31U)), last);
}

/// The first instant after `after` at which a fitting day shows the time of day. `horizon`: days to look at.
template <typename Fits>
std::optional<int64_t> nextDay(int64_t after, int32_t secondOfDay, int64_t horizon, Fits fits) {
    const int64_t today = localDay(after);
    // The day before, too: a gap over midnight moves its run to today.
    for (int64_t day = today - 1; day <= today + horizon; ++day) {
        if (!fits(day)) continue;
        const int64_t instant = instantOf(day * DAY + secondOfDay);
        if (instant > after) return instant;
    }
    return std::nullopt;
}

int64_t nextHour(int64_t after, int32_t secondOfHour) {
    const int64_t wall = wallTime(after);
    const int64_t candidate = after - (wall - floorDiv(wall, HOUR) * HOUR) + secondOfHour;
    return candidate > after ? candidate : candidate + HOUR;
}

/// Reads a field of a time of day: one or two digits.
bool readField(std::string_view text, int32_t limit, int32_t& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size() && text.size() <= 2 && value >= 0 && value < limit;
}

}  // namespace

std::optional<int32_t> parseTimeOfDay(std::string_view text) {
    constexpr std::array<int32_t, 3> LIMITS = {24, 60, 60};
    std::array<int32_t, 3> fields = {0, 0, 0};
    for (size_t i = 0; i < fields.size(); ++i) {
        const size_t colon = text.find(':');
        if (!readField(text.substr(0, colon), LIMITS[i], fields[i])) return std::nullopt;
        if (colon == std::string_view::npos) {
            if (i == 0) return std::nullopt;
            return fields[0] * 3600 + fields[1] * 60 + fields[2];
        }
        text.remove_prefix(colon + 1);
    }
    return std::nullopt;
}

std::optional<int64_t> nextScan(const NORVScheduledScanConfig& schedule, int64_t after) {
    const int32_t second = parseTimeOfDay(schedule.time).value_or(0);
    const int32_t weekDay = std::clamp(schedule.weekDay, 0, 6);
    switch (schedule.frequency) {
        case NORVScheduledScanConfig::DAILY:
            return nextDay(after, second, 2, [](int64_t) { return true; });
        case NORVScheduledScanConfig::WEEKLY:
            return nextDay(after, second, 8, [&](int64_t day) { return weekDayOf(day) == weekDay; });
        case NORVScheduledScanConfig::MONTHLY:
            return nextDay(after, second, 32, [&](int64_t day) { return isMonthDay(day, schedule.monthDay); });
        default:
            return std::nullopt;
    }
}

std::optional<int64_t> nextUpdate(const NORVScheduledAUConfig& schedule, int64_t anchor, int64_t after) {
    const int32_t second = parseTimeOfDay(schedule.time).value_or(0);
    const int64_t days = anchor == 0 ? 1 : std::clamp(schedule.period, 1, 366);
    const int64_t weeks = anchor == 0 ? 1 : std::clamp(schedule.period, 1, 53);
    const int32_t weekDay = std::clamp(schedule.weekDay, 0, 6);
    const int64_t anchorDay = localDay(anchor);
    switch (schedule.kind) {
        case NORVScheduledAUConfig::HOURLY:
            return nextHour(after, second % 3600);
        case NORVScheduledAUConfig::DAILY:
            return nextDay(after, second, days + 1, [&](int64_t day) { return (day - anchorDay) % days == 0; });
        case NORVScheduledAUConfig::WEEKLY:
            return nextDay(after, second, weeks * 7 + 7, [&](int64_t day) {
                return weekDayOf(day) == weekDay && (weekOf(day) - weekOf(anchorDay)) % weeks == 0;
            });
        default:
            return std::nullopt;
    }
}

}  // namespace keldra
