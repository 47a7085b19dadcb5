#pragma once

#include "service/base/files.h"
#include "service/events/event_journal.h"
#include "service/scanning/scan_status.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace keldra {

/// The scans that were made, as the journal of events has them. Beside it, on disk: a line per report of each scan in
/// "<id>.finds", since the journal takes only the first ones, and "<id>.json", how far a scan is, until the journal has
/// its end.
class ScanHistory {
public:
    ScanHistory(std::string folder, EventJournal& journal) : folder_(std::move(folder)), journal_(journal) {}

    /// Makes the folder, 0700. False, with a log line, when that fails.
    bool open() const;
    /// The statuses of all scans, by id. The journal is told of those whose end it does not have; one that was running
    /// when the service ended is stopped.
    std::map<std::string, ScanStatus> readAll() const;
    /// Replaces what is known of a scan so far. False, with a log line, when that fails.
    bool save(const ScanStatus& status) const;
    /// Tells the journal of a scan's end. Returns the event's id, 0 when there was no room for it.
    std::uint64_t tellEnd(const ScanStatus& status) const;
    /// True once the journal has the end of a scan on disk; then nothing else is needed to know of it.
    bool settle(const std::string& id, std::uint64_t event) const;
    /// Removes the reports of all scans but these, unless the journal cannot be relied on.
    void removeOthers(const std::set<std::string>& ids) const;
    /// A file to which reports of a scan are appended; none, with a log line, when that fails.
    FileDescriptor openFinds(const std::string& id) const;
    /// False, with a log line, when that fails; then nothing of it is there.
    static bool append(const FileDescriptor& finds, const ScanFind& find);
    /// Replaces all reports of a scan. False, with a log line, when that fails.
    bool saveFinds(const std::string& id, const std::vector<ScanFind>& finds) const;
    /// The reports of a scan from number `from` on, at most `count`.
    std::vector<ScanFind> finds(const std::string& id, std::size_t from, std::size_t count) const;
    std::vector<ScanFind> leftFinds(const std::string& id, std::size_t count) const;
    void forget(const std::string& id) const;

private:
    std::map<std::string, ScanStatus> fromJournal() const;
    std::vector<ScanStatus> unsettled() const;
    void tellReports(const ScanStatus& status) const;
    std::string pathOf(const std::string& id, const char* extension) const { return folder_ + "/" + id + extension; }
    ScanStatus closed(ScanStatus status) const;
    void removeFile(const std::string& id, const char* extension) const;

    std::string folder_;
    EventJournal& journal_;
};

}  // namespace keldra
