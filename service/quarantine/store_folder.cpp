#include "service/quarantine/store_folder.h"

#include "norv/log.h"
#include "service/quarantine/origin.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace keldra {

namespace {

/// A file may have attributes of 64 KiB each, a few of them.
constexpr std::size_t LARGEST_RECORD = std::size_t{16} << 20U;
constexpr mode_t SEALED = 0600;

StoreResult failure(const char* what) { return {false, std::string(what) + ": " + errorText(errno), errno}; }

}  // namespace

bool StoreFolder::open() {
    if (makeFolder(path_, 0700)) {
        folder_ = FileDescriptor(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!folder_) NORV_LOG(NORV_LOG_ERROR, "cannot open %s: %s", path_.c_str(), errorText(errno).c_str());
    return static_cast<bool>(folder_);
}

int64_t StoreFolder::lastChange() const {
    struct stat status {};
    return ::fstat(folder_.get(), &status) == 0 ? status.st_mtim.tv_sec : 0;
}

bool StoreFolder::write(const QuarantineRecord& record, QuarantinePhase phase) const {
    QuarantineRecord current = record;
    current.phase = phase;
    const std::string path = path_ + "/" + recordName(record.item.id);
    const WriteResult written = writeFileAtomically(path, toText(current), SEALED);
    if (!written) {
        NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", path.c_str(), errorText(written.error).c_str());
        errno = written.error;
    }
    return written.written;
}

std::optional<QuarantineRecord> StoreFolder::read(const std::string& id) const {
    const std::string path = path_ + "/" + recordName(id);
    int error = 0;
    const std::optional<std::string> text = readFile(path, LARGEST_RECORD, error);
    std::optional<QuarantineRecord> record = text ? recordFromText(*text) : std::nullopt;
    if (record && record->item.id == id) return record;
    NORV_LOG(NORV_LOG_ERROR, "%s is no record of a quarantined file; left alone: %s", path.c_str(),
             text ? "damaged" : errorText(error).c_str());
    return std::nullopt;
}

std::vector<QuarantineRecord> StoreFolder::readAll() const {
    std::vector<QuarantineRecord> records;
    std::error_code failed;
    for (std::filesystem::directory_iterator entry(path_, failed), end; !failed && entry != end;
         entry.increment(failed)) {
        if (entry->path().filename().string().find(".json.") != std::string::npos) {
            ::unlink(entry->path().c_str());  // a record that was being written when the power went
        }
        if (entry->path().extension() != ".json") continue;
        std::optional<QuarantineRecord> record = read(entry->path().stem().string());
        if (record) records.push_back(std::move(*record));
    }
    if (failed) NORV_LOG(NORV_LOG_ERROR, "cannot read all of %s: %s", path_.c_str(), failed.message().c_str());
    return records;
}

int StoreFolder::dataStatus(const std::string& id, struct stat& status) const {
    return statusOf(get(), dataName(id), status) ? 0 : errno;
}

void StoreFolder::seal(int fd) const {
    if (::fchmod(fd, SEALED) != 0 || ::fchown(fd, ::geteuid(), ::getegid()) != 0) {
        NORV_LOG(NORV_LOG_TRACE, "quarantine: mode or owner kept: %s", errorText(errno).c_str());
    }
    ::fsync(fd);
}

void StoreFolder::cutTo(const std::string& id, uint64_t size) const {
    struct stat status {};
    if (dataStatus(id, status) != 0 || !S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) <= size)
        return;
    const FileDescriptor data(::openat(folder_.get(), dataName(id).c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
    const bool cut = data && ::ftruncate(data.get(), static_cast<off_t>(size)) == 0;
    NORV_LOG(NORV_LOG_WARNING, "%s grew to %lld bytes in quarantine and %s", id.c_str(),
             static_cast<long long>(status.st_size), cut ? "was cut" : "cannot be cut");
}

void StoreFolder::seal(const std::string& id) const {
    const FileDescriptor data = openExisting(get(), dataName(id));
    if (data) seal(data.get());
}

StoreResult StoreFolder::erase(const std::string& id) const {
    if (::unlinkat(get(), dataName(id).c_str(), 0) != 0 && errno != ENOENT) {
        return failure("The quarantined file cannot be deleted");
    }
    return eraseRecord(id);
}

StoreResult StoreFolder::eraseRecord(const std::string& id) const {
    if (::unlinkat(get(), recordName(id).c_str(), 0) != 0 && errno != ENOENT) {
        return failure("The record of the file cannot be deleted");
    }
    if (::fsync(get()) != 0) return {true, NOT_ON_DISK, errno};
    return {true, "", 0};
}

}  // namespace keldra
