#include "service/quarantine/quarantine_store.h"

#include "norv/log.h"
#include "service/tree/file_transfer.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

namespace keldra {

namespace {

constexpr std::size_t LARGEST_RECORD = std::size_t{1} << 20U;
constexpr mode_t SEALED = 0600;
/// What a copy leaves free for the rest of the service, which shares the disk.
constexpr uint64_t LEFT_FREE = uint64_t{64} << 20U;

StoreResult success() { return {true, "", false}; }
StoreResult failure(std::string message) { return {false, std::move(message), false}; }
StoreResult failure(const char* what, int error) { return failure(std::string(what) + ": " + errorText(error)); }
StoreResult damaged() { return failure("The quarantined file cannot be read as it was stored."); }
StoreResult dead() { return {false, "interrupted", true}; }

std::string dataName(const std::string& id) { return id + ".data"; }
std::string recordName(const std::string& id) { return id + ".json"; }
/// The name a file bears in its own folder for the moment in which it is taken away or put back.
std::string passingName(const std::string& id) { return ".keldra-" + id; }

/// Where an item came from: its folder, opened without following any symbolic link, and its name there.
struct Origin {
    FileDescriptor folder;
    std::string name;
    int error = 0;
};

Origin originOf(const QuarantineItem& item) {
    const std::filesystem::path path(item.path);
    Origin origin;
    origin.name = path.filename().string();
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const std::string parent = path.parent_path().string();
    const long fd = ::syscall(SYS_openat2, AT_FDCWD, parent.c_str(), &how, sizeof how);
    if (fd < 0) origin.error = errno;
    origin.folder = FileDescriptor(static_cast<int>(fd));
    if (origin.name.empty() || path.is_relative()) origin.error = EINVAL;
    return origin;
}

/// The status of a name in a folder; false with errno set.
bool statusOf(int folder, const std::string& name, struct stat& status) {
    return ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool isInode(const struct stat& status, uint64_t inode) { return S_ISREG(status.st_mode) && status.st_ino == inode; }

bool hasInode(int folder, const std::string& name, uint64_t inode) {
    struct stat status {};
    return statusOf(folder, name, status) && isInode(status, inode);
}

FileDescriptor openExisting(int folder, const std::string& name) {
    return FileDescriptor(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

FileDescriptor createNew(int folder, const std::string& name) {
    return FileDescriptor(::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, SEALED));
}

/// How what lies under a name compares with the content of an item.
enum class Content { SAME, OTHER, UNKNOWN };

Content contentOf(int folder, const std::string& name, const std::string& sha256) {
    const FileDescriptor file = openExisting(folder, name);
    const std::string found = file ? sha256Of(file.get()) : std::string();
    if (found.empty()) return Content::UNKNOWN;
    return found == sha256 ? Content::SAME : Content::OTHER;
}

/// Whether the disk of a folder takes a copy of so many bytes without getting full.
bool hasRoomFor(int folder, uint64_t size) {
    struct statvfs disk {};
    if (::fstatvfs(folder, &disk) != 0) return true;
    const uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
    return free >= LEFT_FREE && free - LEFT_FREE >= size;
}

std::string explainOrigin(int error) {
    if (error == ENOENT) return "The folder of the file does not exist any more; nothing was restored.";
    if (error == ELOOP) return "A part of the path is a symbolic link now; nothing was restored.";
    return "The folder of the file cannot be opened: " + errorText(error);
}

std::string explainPlacing(int error) {
    if (error == EEXIST) return "There is a file of that name already; nothing was overwritten.";
    return "The file cannot be put back: " + errorText(error);
}

}  // namespace

bool QuarantineStore::open() {
    if (makeFolder(path_, 0700)) {
        folder_ = FileDescriptor(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!folder_) NORV_LOG(NORV_LOG_ERROR, "cannot open %s: %s", path_.c_str(), errorText(errno).c_str());
    return static_cast<bool>(folder_);
}

bool QuarantineStore::write(const QuarantineRecord& record, QuarantinePhase phase) const {
    QuarantineRecord current = record;
    current.phase = phase;
    const std::string path = path_ + "/" + recordName(record.item.id);
    const WriteResult written = writeFileAtomically(path, toText(current), SEALED);
    if (!written) {
        errno = written.error;
        NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", path.c_str(), errorText(written.error).c_str());
    }
    return written.written;
}

/// Makes a file unusable for anybody but the service, as far as the service may.
void QuarantineStore::seal(int fd) const {
    if (::fchmod(fd, SEALED) != 0 || ::fchown(fd, ::geteuid(), ::getegid()) != 0) {
        NORV_LOG(NORV_LOG_TRACE, "quarantine: mode or owner kept: %s", errorText(errno).c_str());
    }
    ::fsync(fd);
}

void QuarantineStore::sealData(const std::string& id) const {
    const FileDescriptor data = openExisting(folder_.get(), dataName(id));
    if (data) seal(data.get());
}

/// 0 when the content is there, else errno; only ENOENT says that it is not.
int QuarantineStore::dataStatus(const std::string& id, struct stat& status) const {
    return statusOf(folder_.get(), dataName(id), status) ? 0 : errno;
}

StoreResult QuarantineStore::put(const ScannedFile& file, QuarantineRecord record) {
    const bool backup = record.item.backup;
    record.phase = backup ? QuarantinePhase::BACKING_UP : QuarantinePhase::MOVING;
    if (!write(record, record.phase)) {
        return failure("the quarantine cannot be written", errno);
    }
    if (!step("recorded")) return dead();
    StoreResult result = backup ? copyIn(file, record) : moveIn(file, record);
    if (result.dead) return result;
    if (!result.done) {
        discard(record);
        return result;
    }
    // A record that cannot be written now is mended at the next start; the file is safe either way.
    write(record, QuarantinePhase::KEPT);
    return success();
}

/// After a failure: what was copied goes. What was renamed and is not ours (its old name was taken before it could go
/// back) stays with its record, for `repair` to put back.
void QuarantineStore::discard(const QuarantineRecord& record) {
    struct stat data {};
    if (record.phase == QuarantinePhase::MOVING && dataStatus(record.item.id, data) != ENOENT) return;
    erase(record.item.id);
}

StoreResult QuarantineStore::moveIn(const ScannedFile& file, QuarantineRecord& record) {
    // Other names of the same file would be sealed with it: such a file is copied.
    if (file.status.st_nlink > 1) return copyInAndRemove(file, record);
    if (!renameExactly(file, folder_.get(), dataName(record.item.id))) {
        if (errno == EXDEV) return copyInAndRemove(file, record);
        return failure("the file cannot be moved", errno);
    }
    if (!step("moved")) return dead();
    ::fsync(file.folder->get());
    seal(file.file.get());
    ::fsync(folder_.get());
    return step("sealed") ? success() : dead();
}

StoreResult QuarantineStore::copyIn(const ScannedFile& file, const QuarantineRecord& record) {
    if (!hasRoomFor(folder_.get(), record.item.size)) return failure("the disk of the quarantine is almost full");
    const FileDescriptor data = createNew(folder_.get(), dataName(record.item.id));
    if (!data) return failure("the quarantine cannot be written", errno);
    if (!step("created")) return dead();
    const std::string hash = copyContent(file.file.get(), data.get());
    if (hash.empty()) return failure("the file cannot be copied", errno);
    if (hash != record.item.sha256) return failure("the file changed while it was copied");
    ::fsync(folder_.get());
    return step("copied") ? success() : dead();
}

StoreResult QuarantineStore::copyInAndRemove(const ScannedFile& file, QuarantineRecord& record) {
    record.phase = QuarantinePhase::COPYING;
    if (!write(record, record.phase)) return failure("the quarantine cannot be written", errno);
    if (!step("copy recorded")) return dead();
    StoreResult copied = copyIn(file, record);
    if (!copied.done) return copied;
    const std::string passing = passingName(record.item.id);
    if (!renameExactly(file, file.folder->get(), passing)) return failure("the file cannot be removed", errno);
    if (!step("set aside")) return dead();
    if (!removeSetAside(file, passing)) return failure("the file cannot be removed", errno);
    ::fsync(file.folder->get());
    return step("removed") ? success() : dead();
}

StoreResult QuarantineStore::giveBack(const QuarantineRecord& record) {
    const Origin origin = originOf(record.item);
    if (origin.error != 0) return failure(explainOrigin(origin.error));
    struct stat status {};
    if (statusOf(origin.folder.get(), origin.name, status)) return failure(explainPlacing(EEXIST));
    if (!write(record, QuarantinePhase::RESTORING)) return failure("The quarantine cannot be written", errno);
    if (!step("restore recorded")) return dead();
    StoreResult result = place(record, origin.folder.get(), origin.name);
    if (result.dead) return result;
    if (!result.done) {
        sealData(record.item.id);
        write(record, QuarantinePhase::KEPT);
        return result;
    }
    ::fsync(origin.folder.get());
    if (!step("placed")) return dead();
    erase(record.item.id);
    return success();
}

StoreResult QuarantineStore::place(const QuarantineRecord& record, int folder, const std::string& name) {
    StoreResult result = placeByRename(record, folder, name);
    if (!result.done && !result.dead && errno == EXDEV) return placeByCopy(record, folder, name);
    return result;
}

/// On failure errno tells whether copying may help (EXDEV).
StoreResult QuarantineStore::placeByRename(const QuarantineRecord& record, int folder, const std::string& name) {
    const std::string data = dataName(record.item.id);
    const FileDescriptor file = openExisting(folder_.get(), data);
    if (!file) return failure("The quarantined file cannot be opened", errno);
    // Who had it open for writing when it was put away could still change it.
    if (sha256Of(file.get()) != record.item.sha256) {
        errno = EIO;
        return damaged();
    }
    if (!applyAttributes(file.get(), record.item)) {
        const int error = errno == EXDEV ? EIO : errno;
        errno = error;
        return failure("Owner, mode and times cannot be restored", error);
    }
    ::fsync(file.get());
    if (!step("attributes")) return dead();
    if (!renameNoReplace(folder_.get(), data, folder, name)) {
        const int error = errno;
        StoreResult refused = failure(explainPlacing(error));
        errno = error;
        return refused;
    }
    return success();
}

StoreResult QuarantineStore::placeByCopy(const QuarantineRecord& record, int folder, const std::string& name) {
    const std::string passing = passingName(record.item.id);
    const FileDescriptor data = openExisting(folder_.get(), dataName(record.item.id));
    const FileDescriptor copy = createNew(folder, passing);
    if (!data || !copy) return failure(explainPlacing(errno));
    const bool whole = copyContent(data.get(), copy.get()) == record.item.sha256;
    if (!whole || !applyAttributes(copy.get(), record.item) || ::fsync(copy.get()) != 0) {
        const int error = errno;
        ::unlinkat(folder, passing.c_str(), 0);
        return whole ? failure(explainPlacing(error)) : damaged();
    }
    if (!step("copied back")) return dead();
    if (!renameNoReplace(folder, passing, folder, name)) {
        const int error = errno;
        ::unlinkat(folder, passing.c_str(), 0);
        return failure(explainPlacing(error));
    }
    return success();
}

StoreResult QuarantineStore::erase(const std::string& id) {
    if (::unlinkat(folder_.get(), dataName(id).c_str(), 0) != 0 && errno != ENOENT) {
        return failure("The quarantined file cannot be deleted", errno);
    }
    if (!step("data erased")) return dead();
    return eraseRecord(id);
}

StoreResult QuarantineStore::eraseRecord(const std::string& id) {
    if (::unlinkat(folder_.get(), recordName(id).c_str(), 0) != 0 && errno != ENOENT) {
        return failure("The record of the file cannot be deleted", errno);
    }
    ::fsync(folder_.get());
    return success();
}

bool QuarantineStore::readRecords(std::vector<QuarantineRecord>& records) const {
    std::error_code failed;
    for (std::filesystem::directory_iterator entry(path_, failed), end; !failed && entry != end;
         entry.increment(failed)) {
        if (entry->path().filename().string().find(".json.") != std::string::npos) {
            ::unlink(entry->path().c_str());  // a record that was being written when the power went
        }
        if (entry->path().extension() != ".json") continue;
        int error = 0;
        const std::optional<std::string> text = readFile(entry->path(), LARGEST_RECORD, error);
        std::optional<QuarantineRecord> record = text ? recordFromText(*text) : std::nullopt;
        if (record && recordName(record->item.id) == entry->path().filename().string()) {
            records.push_back(std::move(*record));
        } else {
            NORV_LOG(NORV_LOG_ERROR, "%s is no record of a quarantined file; left alone", entry->path().c_str());
        }
    }
    return !failed;
}

std::vector<QuarantineRecord> QuarantineStore::repair() {
    std::vector<QuarantineRecord> records;
    if (!readRecords(records)) NORV_LOG(NORV_LOG_ERROR, "cannot read all of %s", path_.c_str());
    std::vector<QuarantineRecord> kept;
    for (QuarantineRecord& record : records) {
        const Mend result = mend(record);
        if (record.phase != QuarantinePhase::KEPT) logMended(record, result);
        if (result == Mend::FORGET) eraseRecord(record.item.id);
        if (result == Mend::ERASE) erase(record.item.id);
        if (result == Mend::FORGET || result == Mend::ERASE) continue;
        if (result == Mend::KEEP && record.phase != QuarantinePhase::KEPT) write(record, QuarantinePhase::KEPT);
        record.phase = QuarantinePhase::KEPT;
        kept.push_back(std::move(record));
    }
    return kept;
}

void QuarantineStore::logMended(const QuarantineRecord& record, Mend result) {
    const char* const became = result == Mend::KEEP    ? "is now complete"
                               : result == Mend::LATER ? "cannot be mended now; nothing was removed"
                                                       : "is now undone";
    NORV_LOG(NORV_LOG_WARNING, "quarantine of %s was interrupted and %s", record.item.path.c_str(), became);
}

QuarantineStore::Mend QuarantineStore::mend(const QuarantineRecord& record) const {
    struct stat data {};
    const int error = dataStatus(record.item.id, data);
    if (error == ENOENT) return Mend::FORGET;
    if (error != 0) return Mend::LATER;
    switch (record.phase) {
        case QuarantinePhase::KEPT:
            return Mend::KEEP;
        case QuarantinePhase::MOVING:
            return mendMove(record, data);
        case QuarantinePhase::COPYING:
            return mendCopy(record);
        case QuarantinePhase::BACKING_UP:
            return mendBackup(record);
        case QuarantinePhase::RESTORING:
            return mendRestore(record);
    }
    return Mend::KEEP;
}

/// The file was renamed; if it was another one that had got its name, that one goes back. Where a rename is a link and
/// an unlink, the file may bear both names: the move had not come to its end.
QuarantineStore::Mend QuarantineStore::mendMove(const QuarantineRecord& record, const struct stat& data) const {
    const Origin origin = originOf(record.item);
    if (origin.error == 0) {
        struct stat there {};
        const bool shown = statusOf(origin.folder.get(), origin.name, there);
        if (shown && there.st_dev == data.st_dev && there.st_ino == data.st_ino) return Mend::ERASE;
        if (!isInode(data, record.inode) &&
            renameNoReplace(folder_.get(), dataName(record.item.id), origin.folder.get(), origin.name)) {
            return Mend::FORGET;
        }
    }
    sealData(record.item.id);
    return Mend::KEEP;
}

/// The copy counts once the file itself has left its name. It is given up only for a file that provably has the same
/// content: whatever cannot be read may be the last one there is.
QuarantineStore::Mend QuarantineStore::mendCopy(const QuarantineRecord& record) const {
    const Content data = contentOf(folder_.get(), dataName(record.item.id), record.item.sha256);
    const Origin origin = originOf(record.item);
    if (origin.error == 0) {
        const std::string passing = passingName(record.item.id);
        if (hasInode(origin.folder.get(), passing, record.inode)) {
            if (data == Content::SAME) {
                ::unlinkat(origin.folder.get(), passing.c_str(), 0);
                return Mend::KEEP;
            }
            renameNoReplace(origin.folder.get(), passing, origin.folder.get(), origin.name);
        }
        if (contentOf(origin.folder.get(), origin.name, record.item.sha256) == Content::SAME) return Mend::ERASE;
    }
    return data == Content::SAME ? Mend::KEEP : Mend::LATER;
}

/// Half a backup is none; the file itself was left in place.
QuarantineStore::Mend QuarantineStore::mendBackup(const QuarantineRecord& record) const {
    switch (contentOf(folder_.get(), dataName(record.item.id), record.item.sha256)) {
        case Content::SAME:
            return Mend::KEEP;
        case Content::OTHER:
            return Mend::ERASE;
        case Content::UNKNOWN:
            break;
    }
    return Mend::LATER;
}

/// Either the file is back in its place or it is still in quarantine; a copy on the way is dropped.
QuarantineStore::Mend QuarantineStore::mendRestore(const QuarantineRecord& record) const {
    const Origin origin = originOf(record.item);
    if (origin.error == 0) {
        ::unlinkat(origin.folder.get(), passingName(record.item.id).c_str(), 0);
        if (contentOf(origin.folder.get(), origin.name, record.item.sha256) == Content::SAME) return Mend::ERASE;
    }
    sealData(record.item.id);
    return Mend::KEEP;
}

}  // namespace keldra
