#pragma once

#include "service/base/files.h"
#include "service/quarantine/quarantine_record.h"

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace keldra {

/// How a step of the store ended.
struct StoreResult {
    bool done = false;
    std::string message;  ///< English: why it was not done, or what is to be told although it was
    int error = 0;        ///< errno of what failed
};

/// Told of what was done and what a disk refused to make last.
inline constexpr const char* NOT_ON_DISK = "the disk did not take it yet, so a power cut could undo it";

/// The quarantine's folder: for each item a record "<id>.json" and the content "<id>.data".
class StoreFolder {
public:
    explicit StoreFolder(std::string path) : path_(std::move(path)) {}

    /// Makes and opens the folder, 0700. False, with a log line, when that fails.
    bool open();
    const std::string& path() const { return path_; }
    int get() const { return folder_.get(); }
    /// When something was put in or taken out last, in seconds since the epoch; 0 where that is unknown.
    int64_t lastChange() const;
    static std::string dataName(const std::string& id) { return id + ".data"; }
    /// The name a file bears in its own folder for the moment in which it is taken away or put back.
    static std::string passingName(const std::string& id) { return ".keldra-" + id; }

    /// Writes the record anew with this phase. False, with a log line and errno set, when that fails.
    bool write(const QuarantineRecord& record, QuarantinePhase phase) const;
    /// Nothing when there is none or it cannot be read.
    std::optional<QuarantineRecord> read(const std::string& id) const;
    /// All records that can be read; the others are logged and left alone.
    std::vector<QuarantineRecord> readAll() const;

    /// 0 when the content is there, else errno; only ENOENT says that it is not.
    int dataStatus(const std::string& id, struct stat& status) const;
    /// Cuts off what somebody who had the file open before it came here has written behind its end.
    void cutTo(const std::string& id, uint64_t size) const;
    /// Makes a content unusable for anybody but the service, as far as the service may.
    void seal(const std::string& id) const;
    void seal(int fd) const;
    /// Deletes content and record.
    StoreResult erase(const std::string& id) const;
    StoreResult eraseRecord(const std::string& id) const;

private:
    static std::string recordName(const std::string& id) { return id + ".json"; }

    std::string path_;
    FileDescriptor folder_;
};

}  // namespace keldra
