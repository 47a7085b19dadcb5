#include "service/scanning/remaining_time.h"

#include "service/scanning/scan_pause.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace keldra {
namespace {

constexpr std::uint64_t MIB = std::uint64_t{1} << 20U;

/// Many small files first and a few huge ones behind them, and the other way round; 100 MiB a second.
TEST(RemainingTimeTest, TheGuessEndsNearTheTruthAndDoesNotJump) {
    for (const bool hugeFirst : {false, true}) {
        RemainingTime remaining(0);
        std::int64_t before = -1;
        std::int64_t worstJump = 0;
        for (std::int64_t second = 1; second <= 100; ++second) {
            const auto done = static_cast<std::uint64_t>(second);
            const std::uint64_t files =
                hugeFirst ? (done > 80 ? (done - 80) * 400 : 0) : std::min<std::uint64_t>(done, 20) * 400;
            remaining.measure(second * 1000, done * 100 * MIB - files * MIB / 16, files, (100 * 100 - 8000 / 16) * MIB,
                              8000);
            const std::int64_t guess = remaining.seconds().value_or(-1);
            EXPECT_EQ(guess >= 0, second >= 3) << "not too early, and then always";
            if (before >= 0) worstJump = std::max(worstJump, std::abs(guess - before));
            EXPECT_TRUE(second != 50 || std::abs(guess - 50) <= 15) << guess;
            before = guess;
        }
        EXPECT_LE(worstJump, 6);
        EXPECT_LE(before, 1);
    }
}

TEST(RemainingTimeTest, APauseMovesNothing) {
    RemainingTime remaining(0);
    for (std::int64_t second = 1; second <= 50; ++second)
        remaining.measure(second * 1000, static_cast<std::uint64_t>(second) * MIB, 0, 100 * MIB, 0);
    const auto before = remaining.seconds();
    remaining.leaveOut(3600000);
    remaining.measure(3600000 + 51000, 51 * MIB, 0, 100 * MIB, 0);
    EXPECT_NEAR(static_cast<double>(*remaining.seconds()), static_cast<double>(*before) - 1, 1);
}

TEST(ScanWindowTest, AWindowMayReachOverMidnight) {
    const auto at = [](int hour, int minute) {
        std::tm local{};
        local.tm_year = 126;
        local.tm_mday = 15;
        local.tm_hour = hour;
        local.tm_min = minute;
        local.tm_isdst = -1;
        return static_cast<std::int64_t>(std::mktime(&local));
    };
    const ScanWindow night{"22:00:00", "06:00:00"};
    const ScanWindow day{"09:00", "17:30"};
    struct Row {
        int hour, minute;
        bool inNight, inDay;
    };
    for (const Row& row : {Row{22, 0, true, false},
                           {5, 59, true, false},
                           {6, 0, false, false},
                           {9, 0, false, true},
                           {17, 29, false, true},
                           {17, 30, false, false},
                           {0, 0, true, false}}) {
        EXPECT_EQ(night.holds(at(row.hour, row.minute)), row.inNight) << row.hour;
        EXPECT_EQ(day.holds(at(row.hour, row.minute)), row.inDay) << row.hour;
        EXPECT_TRUE(ScanWindow{}.holds(at(row.hour, row.minute)));
    }
}

}  // namespace
}  // namespace keldra
