#pragma once

#include "norv/au_config.h"
#include "norv/scan_config.h"
#include "service/base/clock.h"

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace keldra {

/// Both schedules, as the configuration holds them.
struct ScheduleSettings {
    NORVScheduledScanConfig scan;
    NORVScheduledAUConfig update;
    bool randomizedUpdate = false;  ///< an update starts at a random second of the hour after its time
};

/// Starts the scheduled scan and the scheduled update when they are due. What was due while the service did not run is
/// made up once, after start-up, and so is a run that the service's end cut off; a new schedule never makes up for its
/// past. May be used from several threads.
class Scheduler {
public:
    /// Starts the thing; false when it cannot be started now (one is running): then this run is skipped. Called without
    /// locks from the scheduler's thread, or from `tick`.
    using Starter = std::function<bool()>;
    struct Hooks {
        Starter startScan;
        Starter startUpdate;
        std::function<uint32_t()> randomSecond;  ///< 0..3599; empty: from the kernel
        /// Whether the run that was started last is over, however it ended. Empty: it is over at once.
        std::function<bool()> scanEnded;
        std::function<bool()> updateEnded;
        /// Whether the end of the service cut off the last scheduled scan. Asked once, and only where the file was
        /// written by a version that did not note it. Empty: it did not.
        std::function<bool()> scanWasCut{};
    };

    /// `stateFile`: where the last runs are kept (schedule.json), replaced as a whole at each change.
    Scheduler(std::filesystem::path stateFile, const Clock& clock, Hooks hooks);
    ~Scheduler();
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    /// Plans anew when the settings differ from those before. Call it with the first settings before `start`.
    void configure(const ScheduleSettings& settings);

    /// Runs the schedules in a thread of its own, which looks at the clock at least every 30 seconds, so that a clock
    /// that was set is noticed.
    void start();
    void stop();

    /// Starts what is due now. What the thread does; a test calls it itself.
    void tick();

    /// When the next run is planned, seconds since the epoch; nothing when switched off. A time in the past is a run
    /// that is about to be made up.
    std::optional<int64_t> nextScan() const;
    std::optional<int64_t> nextUpdate() const;
    /// When the last scheduled run was started; 0: never.
    int64_t lastScan() const;
    int64_t lastUpdate() const;

private:
    /// What is known of one schedule. All but the last three is kept in the file.
    struct Track {
        std::string fingerprint;      ///< the schedule that the rest belongs to
        int64_t considered = 0;       ///< planned times up to this one are dealt with
        int64_t anchor = 0;           ///< the last planned time that was
        int64_t before = 0;           ///< the one before that
        int64_t started = 0;          ///< when a run was started last
        bool underWay = false;        ///< it was not over when that was looked at last
        int64_t tries = 0;            ///< how often that run was started
        std::optional<int64_t> slot;  ///< the next planned time
        std::optional<int64_t> next;  ///< the same with the random part
        bool cut = false;             ///< it was under way when the service ended; to be made up
    };

    void plan();
    static bool adopt(Track& track, std::string fingerprint, int64_t now, int64_t tolerance);
    void setSlot(Track& track, std::optional<int64_t> slot, bool randomized) const;
    bool takeDue(Track& track, const char* what);
    void runDue(Track& track, const Starter& starter, const char* what);
    void noteEnd(Track& track, const std::function<bool()>& ended);
    void load();
    void show();
    void save() const;
    void loop();
    int64_t secondsToWait() const;

    const std::filesystem::path stateFile_;
    const Clock& clock_;
    const Hooks hooks_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    ScheduleSettings settings_;
    Track scan_;
    Track update_;
    /// What is told of all that, under a lock that nobody holds while writing.
    struct Shown {
        std::optional<int64_t> nextScan{};
        std::optional<int64_t> nextUpdate{};
        int64_t lastScan = 0;
        int64_t lastUpdate = 0;
    };
    mutable std::mutex shownMutex_;
    Shown shown_;
    std::thread thread_;
};

}  // namespace keldra
