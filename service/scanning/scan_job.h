#pragma once

#include "service/base/clock.h"
#include "service/engine/extension_list.h"
#include "service/engine/scan_engine.h"
#include "service/quarantine/actions.h"
#include "service/scanning/scan_history.h"
#include "service/scanning/scan_pause.h"
#include "service/scanning/scan_report.h"
#include "service/scanning/scan_status.h"
#include "service/tree/file_walk.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

namespace keldra {

/// What a scan works with; outlives it.
struct ScanTools {
    ScanEngine& engine;
    Actions& actions;
    const ScanHistory& history;
    const Clock& clock;
    std::vector<std::string> ownFolders;
    std::size_t findLimit = 0;
    ScanFindListener onFind{};
    /// Called once when a scan has ended, from its thread.
    std::function<void(const ScanStatus& scan)> onEnd{};
};

/// One scan from start to end, on threads of its own. May be asked from any thread.
class ScanJob {
public:
    /// Starts at once.
    ScanJob(std::string id, ScanRequest request, const ScanTools& tools);
    /// Stops it, if need be, and waits for it.
    ~ScanJob();
    ScanJob(const ScanJob&) = delete;
    ScanJob& operator=(const ScanJob&) = delete;

    ScanStatus status() const;
    /// Whether it has not ended yet, with all that belongs to its end.
    bool running() const;
    /// The reports from number `from` on, at most `count`.
    std::vector<ScanFind> finds(std::size_t from, std::size_t count) const { return report_.finds(from, count); }
    std::vector<ScanFind> leftFinds(std::size_t count) const { return report_.leftFinds(count); }
    /// Asks it to end; `message` says why.
    void stop(const char* message);
    void pause(bool paused) { pause_.ask(paused); }
    /// Stores again what could not be stored. True when all of it is on disk and in the journal.
    bool settle();
    /// Waits for its end, at most so many milliseconds. True when it has ended.
    bool wait(int milliseconds) const;

private:
    void begin();
    void run();
    bool prepare();
    void walk();
    void work(FileWalk& files);
    void waitWhilePaused();
    bool passKnown(int folder, const struct stat& status);
    void scanFile(const ScannedFile& file);
    bool stopping() const { return stop_.stop_requested(); }
    void guarded(const std::function<void()>& body);
    std::jthread helper(std::function<void(const std::stop_token&)> body);
    void abandon();
    void account(const ScannedFile& file, const ScanResult& result);
    ScanFind infectedFind(const ScannedFile& file, const ScanResult& result);
    void skip(const std::string& path, const std::string& reason, std::uint64_t bytes = 0);
    void finish(ScanState state, const char* message);
    void finishAfterWalk();
    const char* stopMessage() const;
    WalkPlan plan() const;
    unsigned int workers() const;

    const ScanRequest request_;
    const ScanTools tools_;
    const FileSelector selector_;
    const ScanOptions options_;
    ScanPause pause_;
    ScanReport report_;
    std::stop_source stop_;
    std::atomic<bool> broken_ = false;  ///< something was thrown
    std::atomic<std::size_t> rootsSkipped_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    bool ended_ = false;
    const char* stopMessage_;

    std::jthread thread_;  ///< last: it uses all of the above
};

}  // namespace keldra
