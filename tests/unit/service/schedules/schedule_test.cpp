#include "service/schedules/schedule.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

using namespace keldra;

namespace {

/// Runs a test in a time zone of its own.
class Schedule : public ::testing::Test {
protected:
    ~Schedule() override { zone("UTC"); }
    static void zone(const char* name) {
        setenv("TZ", name, 1);
        tzset();
    }
};

int64_t utc(const char* text) {
    struct tm t {};
    strptime(text, "%Y-%m-%d %H:%M:%S", &t);
    return timegm(&t);
}

std::string local(std::optional<int64_t> instant) {
    if (!instant) return "never";
    const time_t t = *instant;
    struct tm tm {};
    localtime_r(&t, &tm);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &tm);
    return text;
}

NORVScheduledScanConfig scan(uint32_t frequency, const char* time, int32_t weekDay = 0, uint32_t monthDay = 1) {
    NORVScheduledScanConfig schedule;
    schedule.frequency = frequency;
    schedule.time = time;
    schedule.weekDay = weekDay;
    schedule.monthDay = monthDay;
    return schedule;
}

NORVScheduledAUConfig update(int32_t kind, int32_t period, const char* time, int32_t weekDay = 0) {
    NORVScheduledAUConfig schedule;
    schedule.kind = kind;
    schedule.period = period;
    schedule.time = time;
    schedule.weekDay = weekDay;
    return schedule;
}

/// All runs of a schedule between two instants.
std::vector<int64_t> runs(const NORVScheduledScanConfig& schedule, int64_t from, int64_t to) {
    std::vector<int64_t> all;
    for (auto next = nextScan(schedule, from); next && *next < to; next = nextScan(schedule, *next))
        all.push_back(*next);
    return all;
}

TEST_F(Schedule, AFaultyTimeDoesNotMoveTheRunToAnArbitraryMoment) {
    for (const auto& [text, seconds] :
         {std::pair{"00:00:00", 0}, {"23:59:59", 86399}, {"3:30:00", 12600}, {"03:30", 12600}})
        EXPECT_EQ(parseTimeOfDay(text), seconds) << text;
    for (const char* const bad : {"", "7", "24:00:00", "25:61:99", "3:60", "99999999999:00", ":30:00", "3::00",
                                  "03:30:00:00", "-1:00:00", " 3:00:00", "3h30", "03:30:", "003:30"})
        EXPECT_FALSE(parseTimeOfDay(bad)) << bad;
}

TEST_F(Schedule, ADailyScanRunsOnceOnEachDayOfAYearInEveryZone) {
    for (const char* name : {"Europe/Berlin", "America/New_York", "Australia/Lord_Howe", "Asia/Kathmandu", "UTC"}) {
        zone(name);
        for (const char* time : {"00:00:00", "01:30:00", "02:00:00", "02:30:00", "03:00:00", "23:59:59"}) {
            const auto all =
                runs(scan(2, time), utc("2027-12-31 23:59:59") - 6 * 3600, utc("2028-12-31 23:59:59") - 6 * 3600);
            EXPECT_EQ(all.size(), 366U) << name << " " << time;
            for (size_t i = 1; i < all.size(); ++i)
                EXPECT_NE(local(all[i]).substr(0, 10), local(all[i - 1]).substr(0, 10));
        }
    }
}

TEST_F(Schedule, ATimeThatTheClocksSkipRunsRightAfterTheGap) {
    zone("Europe/Berlin");
    EXPECT_EQ(local(nextScan(scan(2, "02:30:00"), utc("2027-03-27 12:00:00"))), "2027-03-28 03:00:00 CEST");
    EXPECT_EQ(local(nextScan(scan(2, "02:30:00"), utc("2027-03-28 01:00:00"))), "2027-03-29 02:30:00 CEST");
    zone("America/New_York");
    EXPECT_EQ(local(nextScan(scan(2, "02:30:00"), utc("2027-03-13 12:00:00"))), "2027-03-14 03:00:00 EDT");
    zone("America/Santiago");  // skips midnight
    EXPECT_EQ(local(nextScan(scan(2, "00:15:00"), utc("2027-09-04 12:00:00"))), "2027-09-05 01:00:00 -03");
}

TEST_F(Schedule, ATimeThatTheClocksRepeatRunsOnce) {
    zone("Europe/Berlin");
    const auto first = nextScan(scan(2, "02:30:00"), utc("2027-10-30 12:00:00"));
    EXPECT_EQ(local(first), "2027-10-31 02:30:00 CEST");
    EXPECT_EQ(local(nextScan(scan(2, "02:30:00"), *first)), "2027-11-01 02:30:00 CET");
    zone("America/New_York");
    const auto autumn = nextScan(scan(2, "01:30:00"), utc("2027-11-06 12:00:00"));
    EXPECT_EQ(local(autumn), "2027-11-07 01:30:00 EDT");
    EXPECT_EQ(local(nextScan(scan(2, "01:30:00"), *autumn)), "2027-11-08 01:30:00 EST");
}

TEST_F(Schedule, AWeeklyScanKeepsItsDayAndWallTimeThroughTheYear) {
    zone("America/New_York");
    const auto all = runs(scan(3, "04:15:00", 6), utc("2027-01-01 12:00:00"), utc("2028-01-01 08:00:00"));
    EXPECT_EQ(all.size(), 52U);
    for (const int64_t run : all) {
        const time_t t = run;
        struct tm tm {};
        localtime_r(&t, &tm);
        EXPECT_EQ(tm.tm_wday, 6);
        EXPECT_EQ(tm.tm_hour * 60 + tm.tm_min, 4 * 60 + 15);
    }
}

TEST_F(Schedule, AMonthWithoutTheDayRunsOnItsLastOne) {
    zone("Europe/Berlin");
    std::string days;
    for (const int64_t run : runs(scan(4, "06:00:00", 0, 31), utc("2028-01-01 00:00:00"), utc("2029-01-01 00:00:00")))
        days += local(run).substr(5, 5) + " ";
    EXPECT_EQ(days, "01-31 02-29 03-31 04-30 05-31 06-30 07-31 08-31 09-30 10-31 11-30 12-31 ");
    EXPECT_EQ(local(nextScan(scan(4, "06:00:00", 0, 30), utc("2027-02-01 00:00:00"))), "2027-02-28 06:00:00 CET");
    EXPECT_EQ(local(nextScan(scan(4, "06:00:00", 0, 0), utc("2027-02-02 00:00:00"))), "2027-03-01 06:00:00 CET");
    EXPECT_EQ(local(nextScan(scan(4, "06:00:00", 0, 4000000000U), utc("2027-02-02 00:00:00"))),
              "2027-02-28 06:00:00 CET");
}

TEST_F(Schedule, WhatIsOffOrUnknownNeverRuns) {
    for (const uint32_t frequency : {0U, 1U, 5U, 4000000000U}) EXPECT_FALSE(nextScan(scan(frequency, "01:00:00"), 0));
    for (const int32_t kind : {-1, 0, 4}) EXPECT_FALSE(nextUpdate(update(kind, 1, "01:00:00"), 0, 0));
}

TEST_F(Schedule, AnHourlyUpdateRunsAtItsMinuteAlsoInZonesOfHalfHours) {
    zone("Asia/Kathmandu");  // 5:45 ahead
    auto next = nextUpdate(update(1, 0, "00:20:00"), 0, utc("2027-05-01 10:00:00"));
    EXPECT_EQ(local(next), "2027-05-01 16:20:00 +0545");
    EXPECT_EQ(*nextUpdate(update(1, 0, "00:20:00"), 0, *next), *next + 3600);
    zone("Europe/Berlin");  // the repeated hour gets both of its runs
    next = nextUpdate(update(1, 0, "09:05:00"), 0, utc("2027-10-31 00:05:00"));
    EXPECT_EQ(local(next), "2027-10-31 02:05:00 CET");
}

TEST_F(Schedule, AnUpdateEveryFewDaysCountsFromItsLastRun) {
    zone("Europe/Berlin");
    const auto daily = update(2, 3, "05:00:00");
    EXPECT_EQ(local(nextUpdate(daily, 0, utc("2027-03-26 12:00:00"))), "2027-03-27 05:00:00 CET");
    const int64_t anchor = utc("2027-03-27 04:00:00");
    EXPECT_EQ(local(nextUpdate(daily, anchor, anchor)), "2027-03-30 05:00:00 CEST");
    EXPECT_EQ(local(nextUpdate(daily, anchor, utc("2027-03-31 00:00:00"))), "2027-04-02 05:00:00 CEST");
    EXPECT_EQ(local(nextUpdate(update(2, -5, "05:00:00"), anchor, anchor)), "2027-03-28 05:00:00 CEST");
    EXPECT_TRUE(nextUpdate(update(2, 2147483647, "05:00:00"), anchor, anchor));
}

TEST_F(Schedule, AnUpdateEveryFewWeeksKeepsToTheWeekDayAfterItWasMoved) {
    zone("Europe/Berlin");
    const int64_t anchor = utc("2027-03-03 04:00:00");  // a Wednesday
    EXPECT_EQ(local(nextUpdate(update(3, 2, "05:00:00", 3), anchor, anchor)), "2027-03-17 05:00:00 CET");
    EXPECT_EQ(local(nextUpdate(update(3, 2, "05:00:00", 1), anchor, anchor)), "2027-03-15 05:00:00 CET");
    EXPECT_EQ(local(nextUpdate(update(3, 1, "05:00:00", 0), anchor, anchor)), "2027-03-07 05:00:00 CET");
    EXPECT_EQ(local(nextUpdate(update(3, 4, "05:00:00", 3), 0, anchor)), "2027-03-10 05:00:00 CET");
    EXPECT_TRUE(nextUpdate(update(3, 2147483647, "05:00:00", 99), anchor, anchor));
}

}  // namespace
