#pragma once

#include "service/events/event_journal.h"
#include "service/quarantine/actions.h"
#include "service/quarantine/quarantine_item.h"
#include "service/scanning/scan_jobs.h"
#include "service/scanning/scan_status.h"
#include "service/updates/updater.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// What is known of updates beyond the life of this process.
struct UpdateMemory {
    std::int64_t succeeded = 0;  ///< when the last one that did ended, seconds since the epoch; 0: never
    bool failed = false;         ///< the last one
    std::string message;         ///< of the last one, English
};

/// Puts what the tasks tell into the journal, so that no task fills it: the first reports of a scan stand there one by
/// one, the rest as one event. May be used from any thread.
class Happenings {
public:
    explicit Happenings(EventJournal& journal, const Clock& clock = systemClock());

    void found(const ScanStatus& scan, const ScanFind& find);
    /// A find that may stay is met at each access; it is told once an hour.
    void foundByRealtime(const std::string& path, const std::string& signature, const ActionOutcome& done);
    void scheduledScan(const ScanStart& start);
    /// What is left to tell of a scan; of its end it tells itself.
    void scanEnded(const ScanStatus& scan);
    void updateEnded(const UpdateStatus& update);
    /// Files in quarantine that are to go, the first after so many seconds, and those that are gone.
    void removalAnnounced(std::size_t count, std::int64_t seconds);
    void removed(const std::vector<QuarantineItem>& items);
    UpdateMemory updates() const;

private:
    struct Told {
        std::uint64_t found = 0;
        std::uint64_t notScanned = 0;
    };

    EventJournal& journal_;
    const Clock& clock_;
    mutable std::mutex mutex_;
    std::map<std::string, Told> told_;            ///< of running scans
    std::map<std::string, std::int64_t> toldOf_;  ///< by path and signature: when a find that stayed was told last
    UpdateMemory updates_;
};

}  // namespace keldra
