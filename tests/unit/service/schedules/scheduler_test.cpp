#include "service/schedules/scheduler.h"

#include "service/base/files.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>

using namespace keldra;

namespace {

constexpr int64_t MIDNIGHT = 1830297600;  // 2028-01-01 00:00 UTC, a Saturday
constexpr int64_t HOUR = 3600;
constexpr int64_t DAY = 24 * HOUR;

class TestClock : public Clock {
public:
    int64_t now() const override { return time; }
    int64_t steadyMilliseconds() const override { return time * 1000; }
    int64_t time = MIDNIGHT;
};

class SchedulerTest : public ::testing::Test {
protected:
    SchedulerTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        settings_.scan.frequency = NORVScheduledScanConfig::DAILY;
        settings_.scan.time = "03:00:00";
    }

    /// A service that comes up: what it had noted before is read.
    void boot() {
        scheduler_.reset();
        const auto starter = [this](int& count) {
            return [this, &count] {
                if (fail_) throw std::runtime_error("no more threads");
                count += accept_ ? 1 : 0;
                return accept_;
            };
        };
        scheduler_ = std::make_unique<Scheduler>(folder_ / "schedule.json", clock_,
                                                 Scheduler::Hooks{starter(scans_),
                                                                  starter(updates_),
                                                                  [this] {
                                                                      if (fail_) throw std::bad_alloc();
                                                                      return random_;
                                                                  },
                                                                  [this] { return ended_; },
                                                                  {},
                                                                  [this] { return cut_; }});
        scheduler_->configure(settings_);
    }

    void at(int64_t time) {
        clock_.time = time;
        scheduler_->tick();
    }

    TempDir folder_;
    TestClock clock_;
    ScheduleSettings settings_;
    bool accept_ = true;
    bool fail_ = false;
    bool ended_ = true;
    bool cut_ = false;
    uint32_t random_ = 0;
    int scans_ = 0;
    int updates_ = 0;
    std::unique_ptr<Scheduler> scheduler_;
};

TEST_F(SchedulerTest, AScanRunsOnceAtItsTimeEachDay) {
    boot();
    at(MIDNIGHT + 3 * HOUR - 1);
    EXPECT_EQ(scans_, 0);
    for (int64_t i = 0; i < 5; ++i) at(MIDNIGHT + 3 * HOUR + i * 30);
    EXPECT_EQ(scans_, 1);
    EXPECT_EQ(scheduler_->lastScan(), MIDNIGHT + 3 * HOUR);
    EXPECT_EQ(scheduler_->nextScan(), MIDNIGHT + DAY + 3 * HOUR);
    EXPECT_EQ(updates_, 0);
    EXPECT_FALSE(scheduler_->nextUpdate());
}

TEST_F(SchedulerTest, WhatWasMissedWhileOffIsMadeUpOnce) {
    boot();
    at(MIDNIGHT + 3 * HOUR);
    clock_.time = MIDNIGHT + 5 * DAY;
    boot();
    EXPECT_EQ(scheduler_->nextScan(), MIDNIGHT + DAY + 3 * HOUR);
    scheduler_->tick();
    scheduler_->tick();
    EXPECT_EQ(scans_, 2);
    EXPECT_EQ(scheduler_->nextScan(), MIDNIGHT + 5 * DAY + 3 * HOUR);
    boot();
    scheduler_->tick();
    EXPECT_EQ(scans_, 2);
}

TEST_F(SchedulerTest, TheFirstRunOfAScheduleIsMadeUpToo) {
    boot();
    at(MIDNIGHT + HOUR);
    clock_.time = MIDNIGHT + 4 * HOUR;
    boot();
    scheduler_->tick();
    EXPECT_EQ(scans_, 1);
}

TEST_F(SchedulerTest, ANewScheduleDoesNotRunForItsPast) {
    boot();
    at(MIDNIGHT + 2 * HOUR);
    settings_.scan.time = "01:00:00";
    scheduler_->configure(settings_);
    scheduler_->tick();
    EXPECT_EQ(scans_, 0);
    EXPECT_EQ(scheduler_->nextScan(), MIDNIGHT + DAY + HOUR);
    settings_.scan.frequency = NORVScheduledScanConfig::OFF;
    scheduler_->configure(settings_);
    EXPECT_FALSE(scheduler_->nextScan());
    at(MIDNIGHT + 3 * DAY);
    settings_.scan.frequency = NORVScheduledScanConfig::DAILY;
    scheduler_->configure(settings_);
    scheduler_->tick();
    EXPECT_EQ(scans_, 0);
}

TEST_F(SchedulerTest, ARunThatCannotStartIsSkippedAndNotRetriedAllDay) {
    boot();
    accept_ = false;
    at(MIDNIGHT + 3 * HOUR);
    accept_ = true;
    at(MIDNIGHT + 3 * HOUR + 60);
    EXPECT_EQ(scans_, 0);
    EXPECT_EQ(scheduler_->lastScan(), 0);
    EXPECT_EQ(scheduler_->nextScan(), MIDNIGHT + DAY + 3 * HOUR);
}

TEST_F(SchedulerTest, AStartOrAPlanThatFailsBadlyEndsNeitherTheServiceNorTheSchedule) {
    settings_.update.kind = NORVScheduledAUConfig::DAILY;
    settings_.update.time = "02:00:00";
    settings_.randomizedUpdate = true;
    boot();
    fail_ = true;
    at(MIDNIGHT + 3 * HOUR);
    fail_ = false;
    EXPECT_EQ(scheduler_->lastScan(), 0);
    at(MIDNIGHT + DAY + 3 * HOUR);
    EXPECT_EQ(scans_, 1);
    EXPECT_EQ(updates_, 1);
}

TEST_F(SchedulerTest, AClockThatIsSetBackALittleDoesNotRunTwice) {
    boot();
    at(MIDNIGHT + 3 * HOUR);
    at(MIDNIGHT + 2 * HOUR);
    at(MIDNIGHT + 3 * HOUR);
    EXPECT_EQ(scans_, 1);
}

TEST_F(SchedulerTest, AClockThatWasAheadForAMinuteLeavesNothingOutAfterwards) {
    settings_.update.kind = NORVScheduledAUConfig::HOURLY;
    settings_.update.time = "00:00:00";
    for (const int64_t ahead : {3 * HOUR, 23 * HOUR, 24 * HOUR, 100 * DAY, 4000 * DAY}) {
        std::filesystem::remove(folder_ / "schedule.json");
        clock_.time = MIDNIGHT;
        boot();
        at(MIDNIGHT + HOUR + 60);
        at(MIDNIGHT + HOUR + 60 + ahead);
        const int64_t now = MIDNIGHT + HOUR + 120;
        at(now);
        scans_ = updates_ = 0;
        EXPECT_EQ(scheduler_->nextScan(), MIDNIGHT + 3 * HOUR) << ahead;
        EXPECT_EQ(scheduler_->nextUpdate(), MIDNIGHT + 2 * HOUR) << ahead;
        for (int64_t time = now; time <= now + DAY; time += 600) at(time);
        EXPECT_EQ(scans_, 1) << ahead;
        EXPECT_EQ(updates_, 24) << ahead;
    }
}

TEST_F(SchedulerTest, AnIntervalOfDaysOutlivesAClockThatWasAhead) {
    settings_.update.kind = NORVScheduledAUConfig::DAILY;
    settings_.update.period = 5;
    settings_.update.time = "02:00:00";
    boot();
    at(MIDNIGHT + 2 * HOUR);
    at(MIDNIGHT + 101 * DAY);
    at(MIDNIGHT + 3 * HOUR);
    EXPECT_EQ(scheduler_->nextUpdate(), MIDNIGHT + 5 * DAY + 2 * HOUR);
}

TEST_F(SchedulerTest, AScanThatTheEndOfTheServiceCutOffIsMadeUpAtTheNextStart) {
    boot();
    ended_ = false;
    at(MIDNIGHT + 3 * HOUR);
    clock_.time += 600;
    for (int i = 0; i < 5; ++i) {  // cut off each time
        boot();
        scheduler_->tick();
        scheduler_->tick();
    }
    EXPECT_EQ(scans_, 3) << "but not for ever";
    at(MIDNIGHT + DAY + 3 * HOUR);
    EXPECT_EQ(scans_, 4);
    ended_ = true;
    at(MIDNIGHT + DAY + 4 * HOUR);
    boot();
    scheduler_->tick();
    EXPECT_EQ(scans_, 4) << "it came to its end";
}

TEST_F(SchedulerTest, SoIsOneThatTheUpgradeOfAVersionThatDidNotNoteItCutOff) {
    for (const bool cut : {false, true}) {
        ASSERT_TRUE(writeFileAtomically(folder_ / "schedule.json",
                                        R"({"scan":{"schedule":"scan 2 03:00:00 0 1","considered":1830308400,)"
                                        R"("planned":1830308400,"started":1830308400}})",
                                        0600));
        clock_.time = MIDNIGHT + 4 * HOUR;
        cut_ = cut;
        boot();
        scheduler_->tick();
        scheduler_->tick();
        cut_ = true;  // not asked again: what follows is noted
        boot();
        scheduler_->tick();
        EXPECT_EQ(scans_, cut ? 1 : 0);
    }
}

TEST_F(SchedulerTest, ARandomizedUpdateStartsWithinTheHourAndKeepsItsInterval) {
    settings_.update.kind = NORVScheduledAUConfig::DAILY;
    settings_.update.period = 2;
    settings_.update.time = "22:00:00";
    settings_.randomizedUpdate = true;
    random_ = 3599;
    boot();
    EXPECT_EQ(scheduler_->nextUpdate(), MIDNIGHT + 22 * HOUR + 3599);
    at(MIDNIGHT + 22 * HOUR + 3598);
    EXPECT_EQ(updates_, 0);
    random_ = 7;
    at(MIDNIGHT + 22 * HOUR + 3599);
    EXPECT_EQ(updates_, 1);
    EXPECT_EQ(scheduler_->nextUpdate(), MIDNIGHT + 2 * DAY + 22 * HOUR + 7);
}

TEST_F(SchedulerTest, ADamagedStateFileDoesNotStopTheSchedules) {
    for (const char* text : {"", "{", "[]", R"({"scan":7,"update":{"considered":"x","planned":-9,"schedule":1}})"}) {
        writeFile(folder_ / "schedule.json", text);
        clock_.time = MIDNIGHT;
        scans_ = 0;
        boot();
        at(MIDNIGHT + 3 * HOUR);
        EXPECT_EQ(scans_, 1) << text;
    }
}

TEST_F(SchedulerTest, TheThreadStartsWhatIsDueAndMayBeAskedMeanwhile) {
    std::promise<void> ran;
    std::unique_ptr<Scheduler> scheduler;
    const auto start = [&] {
        scheduler->nextScan();  // must not hang
        ran.set_value();
        return true;
    };
    scheduler = std::make_unique<Scheduler>(folder_ / "schedule.json", clock_, Scheduler::Hooks{start, {}, {}, {}, {}});
    scheduler->configure(settings_);
    clock_.time = MIDNIGHT + 3 * HOUR;
    scheduler->start();
    EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    scheduler->stop();
}

}  // namespace
