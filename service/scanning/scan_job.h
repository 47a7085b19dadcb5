#pragma once

#include "service/base/clock.h"
#include "service/engine/extension_list.h"
#include "service/engine/scan_engine.h"
#include "service/quarantine/actions.h"
#include "service/scanning/scan_history.h"
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
    bool running() const { return status().state == ScanState::RUNNING; }
    /// The reports from number `from` on, at most `count`.
    std::vector<ScanFind> finds(std::size_t from, std::size_t count) const;
    std::vector<ScanFind> leftFinds(std::size_t count) const;
    /// Asks it to end; `message` says why.
    void stop(const char* message);
    /// Waits for its end, at most so many milliseconds. True when it has ended.
    bool wait(int milliseconds) const;

private:
    void begin();
    void run();
    bool prepare();
    void walk();
    void work(FileWalk& files);
    bool passKnown(int folder, const struct stat& status);
    void scanFile(const ScannedFile& file);
    bool stopping() const { return stop_.stop_requested(); }
    void guarded(const std::function<void()>& body);
    std::jthread helper(std::function<void(const std::stop_token&)> body);
    void abandon();
    void account(const ScannedFile& file, const ScanResult& result);
    void report(ScanFind find);
    void skip(const std::string& path, const std::string& reason);
    void saveNowAndThen();
    void finish(ScanState state, const char* message);
    void finishAfterWalk();
    const char* stopMessage() const;
    WalkPlan plan() const;
    unsigned int workers() const;

    const ScanRequest request_;
    const ScanTools tools_;
    const FileSelector selector_;
    const ScanOptions options_;
    FileDescriptor findsFile_;
    std::stop_source stop_;
    std::atomic<bool> broken_ = false;  ///< something was thrown
    std::atomic<uint64_t> counted_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable ended_;
    ScanStatus status_;
    std::vector<ScanFind> finds_;
    std::size_t unsureReports_ = 0;  ///< of them, not infected
    const char* stopMessage_;
    std::size_t rootsSkipped_ = 0;
    int64_t saved_ = 0;  ///< steady milliseconds of the last time the status was stored

    std::jthread thread_;  ///< last: it uses all of the above
};

}  // namespace keldra
