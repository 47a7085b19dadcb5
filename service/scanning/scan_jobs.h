#pragma once

#include "service/base/clock.h"
#include "service/engine/scan_engine.h"
#include "service/quarantine/actions.h"
#include "service/scanning/scan_history.h"
#include "service/scanning/scan_job.h"
#include "service/scanning/scan_status.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace keldra {

struct ScanStart {
    bool started = false;
    std::string id;       ///< digits and underscores; on refusal the id of the scan that stands in the way
    std::string message;  ///< English: why it was refused
};

struct ScanJobsSettings {
    std::string historyFolder;            ///< reports are kept here; made when missing
    std::size_t historyLimit = 200;       ///< scans of each kind that are kept, beside the last that was completed
    std::size_t findLimit = 100000;       ///< reports kept of one scan; the counts go on
    std::vector<std::string> ownFolders;  ///< never scanned: the quarantine, the signatures
    ScanFindListener onFind{};            ///< called for whatever a scan reports, from its threads
    /// Called when a scan has ended, from its thread; must not ask this for anything but what needs no scan's end.
    std::function<void(const ScanStatus& scan)> onEnd{};
};

/// The scans: runs them, at most one of a kind at a time, and keeps what they found. May be used from any thread.
class ScanJobs {
public:
    ScanJobs(ScanJobsSettings settings, ScanEngine& engine, Actions& actions, EventJournal& journal,
             const Clock& clock = systemClock());
    /// Stops what is running and waits for it.
    ~ScanJobs();
    ScanJobs(const ScanJobs&) = delete;
    ScanJobs& operator=(const ScanJobs&) = delete;

    ScanStart start(const ScanRequest& request);
    /// Asks a running scan to end; it ends by itself soon after. False when no such scan is running.
    bool stop(const std::string& id);
    /// Holds a running scan up before its next file, or lets it go on. False when no such scan is running.
    bool pause(const std::string& id, bool paused);
    /// Waits until a scan has ended, at most so many milliseconds. True when it has.
    bool wait(const std::string& id, int milliseconds) const;

    /// Nothing for an unknown id.
    std::optional<ScanStatus> status(const std::string& id) const;
    /// The reports of a scan from number `from` on, at most `count`.
    std::vector<ScanFind> finds(const std::string& id, std::size_t from, std::size_t count = 1000) const;
    /// The first ones of infected files that were left where they are.
    std::vector<ScanFind> leftFinds(const std::string& id, std::size_t count) const;
    /// The running scan of a kind, if there is one.
    std::optional<ScanStatus> running(ScanKind kind) const;
    /// All scans that are known, newest first.
    std::vector<ScanStatus> history() const;
    /// English: why results cannot be stored at the moment; empty when they can.
    std::string problem() const;
    /// Forgets superfluous results and stores those again that could not be stored. Also done whenever a scan starts.
    void cleanUp();

private:
    /// Of an ended scan only the status is kept in memory.
    void reap();
    std::string newId() const;
    std::vector<std::string> superfluous() const;
    void forgetSuperfluous();

    ScanJobsSettings settings_;
    ScanHistory history_;
    ScanTools tools_;
    std::mutex changing_;  ///< held by who starts and stores scans, whatever the disk takes; taken before the other
    mutable std::mutex mutex_;  ///< never held while the disk is waited for
    std::map<std::string, std::shared_ptr<ScanJob>> jobs_;
    std::map<std::string, ScanStatus> ended_;
};

}  // namespace keldra
