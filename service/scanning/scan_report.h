#pragma once

#include "service/base/clock.h"
#include "service/engine/scan_result.h"
#include "service/scanning/remaining_time.h"
#include "service/scanning/scan_history.h"
#include "service/scanning/scan_status.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// Called for each thing that a scan has to tell about a file, from the scan's threads.
using ScanFindListener = std::function<void(const ScanStatus& scan, const ScanFind& find)>;

/// What one scan has done so far, in memory and on disk. May be used from any thread.
class ScanReport {
public:
    /// Stores the scan as running. `limit`: reports kept of it; the counts go on.
    ScanReport(ScanStatus first, const ScanHistory& history, const Clock& clock, std::size_t limit,
               ScanFindListener listener);

    /// One more file that there is to scan, and the bytes that it holds on the disk.
    void counted(std::uint64_t bytes);
    /// From now on the totals are known.
    void countingDone() { countingDone_ = true; }
    void begin(const std::string& path);
    /// A file with its verdict. `find`: what there is to report about it; ignored for a clean one.
    void scanned(const ScanResult& result, std::uint64_t bytes, ScanFind find);
    /// A file or folder that could not be scanned.
    void skipped(const std::string& path, const std::string& reason, std::uint64_t bytes = 0);
    /// How long nothing was done, milliseconds in all so far.
    void paused(std::int64_t milliseconds);
    void finish(ScanState state, const std::string& message);
    /// Tells the journal of the end.
    void tellEnd();

    ScanStatus status() const;
    std::vector<ScanFind> finds(std::size_t from, std::size_t count) const;
    std::vector<ScanFind> leftFinds(std::size_t count) const;
    /// Stores the counts when that was not done for a while, so that a scan cut short has nearly right ones.
    void saveNowAndThen();
    /// Stores again what could not be stored. True when everything is on disk and in the journal.
    bool settle();

private:
    void report(ScanFind find);
    void measure();
    bool saveAgain();
    bool save(const ScanStatus& status);

    const ScanHistory& history_;
    const Clock& clock_;
    const std::size_t limit_;
    const ScanFindListener listener_;
    FileDescriptor findsFile_;
    std::atomic<std::uint64_t> countedFiles_ = 0;
    std::atomic<std::uint64_t> countedBytes_ = 0;
    std::atomic<bool> countingDone_ = false;

    mutable std::mutex mutex_;
    ScanStatus status_;
    std::vector<ScanFind> finds_;
    std::size_t unsureReports_ = 0;  ///< of them, not infected
    RemainingTime remaining_;
    std::int64_t pausedFor_ = 0;  ///< milliseconds that the guess leaves out already
    std::int64_t savedAt_ = 0;    ///< steady milliseconds of the last time the status was stored
    bool findsSaved_ = true;
    bool statusSaved_ = true;
    std::uint64_t end_ = 0;  ///< id of the journal's event that tells of the end
};

}  // namespace keldra
