#pragma once

#include "service/base/files.h"
#include "service/scanning/scan_status.h"

#include <cstddef>
#include <string>
#include <vector>

namespace keldra {

/// What scans found, on disk: for each scan its status "<id>.json" and a line per report in "<id>.finds".
class ScanHistory {
public:
    explicit ScanHistory(std::string folder) : folder_(std::move(folder)) {}

    /// Makes the folder, 0700. False, with a log line, when that fails.
    bool open() const;
    /// The statuses of all scans. One that was running when the service ended is stored anew as stopped.
    std::vector<ScanStatus> readAll() const;
    /// Replaces the status of a scan. False, with a log line, when that fails.
    bool save(const ScanStatus& status) const;
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
    std::string pathOf(const std::string& id, const char* extension) const { return folder_ + "/" + id + extension; }
    ScanStatus closed(ScanStatus status) const;

    std::string folder_;
};

}  // namespace keldra
