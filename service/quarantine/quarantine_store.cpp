#include "service/quarantine/quarantine_store.h"

#include "norv/log.h"
#include "service/quarantine/origin.h"
#include "service/quarantine/quarantine_repair.h"
#include "service/tree/file_transfer.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace keldra {

namespace {

StoreResult success(std::string remark = "") { return {true, std::move(remark), 0}; }
StoreResult failure(std::string message, int error = 0) { return {false, std::move(message), error}; }
StoreResult failure(const char* what, int error) { return {false, std::string(what) + ": " + errorText(error), error}; }
StoreResult damaged() { return failure("The quarantined file cannot be read as it was stored."); }

/// Why a file cannot be taken from its place.
StoreResult refused(const char* what, const ScannedFile& file, int error) {
    return {false, std::string(what) + ": " + explainChange(error, file.file.get(), file.folder->get()), error};
}

StoreResult cannotPlace(int error, int folder) {
    if (error == EEXIST) return {false, "There is a file of that name already; nothing was overwritten.", error};
    return failure("The file cannot be put back: " + explainChange(error, -1, folder), error);
}

StoreResult cannotOpen(int error) {
    if (error == ENOENT) return failure("The folder of the file does not exist any more; nothing was restored.");
    if (error == ELOOP) return failure("A part of the path is a symbolic link now; nothing was restored.");
    return failure("The folder of the file cannot be opened", error);
}

/// Whether the disk of a folder takes a copy of so many bytes and keeps others free.
bool hasRoomFor(int folder, uint64_t size, uint64_t keepFree) {
    struct statvfs disk {};
    if (::fstatvfs(folder, &disk) != 0) return true;
    const uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
    return free >= keepFree && free - keepFree >= size;
}

/// What can be left to the next start when there is no memory for it.
template <typename Work>
void atBest(Work work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        NORV_LOG(NORV_LOG_WARNING, "the quarantine is put in order at the next start: out of memory");
    }
}

void syncOrigin(const ScannedFile& file) {
    if (syncFolder(file.folder->get())) return;
    NORV_LOG(NORV_LOG_WARNING, "the folder of %s cannot be synced: %s", file.path.c_str(), errorText(errno).c_str());
}

/// What is to be told about a file that was put back.
std::string remarkOn(const QuarantineRecord& record, const std::string& lost) {
    std::string remark;
    if (!lost.empty()) remark = "restored without: " + lost;
    if (record.links > 1) {
        remark += (remark.empty() ? "" : "; ");
        remark += "the file had more names and is a file of its own now";
    }
    return remark;
}

}  // namespace

std::vector<QuarantineRecord> QuarantineStore::repair() const { return repairQuarantine(folder_); }

StoreResult QuarantineStore::put(const ScannedFile& file, QuarantineRecord record, uint64_t keepFree) const {
    const bool backup = record.item.backup;
    record.extended = extendedAttributesOf(file.file.get());
    if (!record.extended) return failure("the attributes of the file cannot be read", errno);
    record.phase = backup ? QuarantinePhase::BACKING_UP : QuarantinePhase::MOVING;
    if (!folder_.write(record, record.phase)) return failure("the quarantine cannot be written", errno);
    StoreResult result;
    try {
        result = backup ? copyIn(file, record, keepFree) : moveIn(file, record, keepFree);
    } catch (const std::bad_alloc&) {
        discard(record);
        throw;
    }
    if (!result.done) {
        discard(record);
        return result;
    }
    // A record that cannot be written now is mended at the next start; the file is safe either way.
    atBest([&] { folder_.write(record, QuarantinePhase::KEPT); });
    return result;
}

bool QuarantineStore::hasRoom(uint64_t bytes) const { return hasRoomFor(folder_.get(), 0, bytes); }

/// After a failure: what was copied goes. What was renamed and is not ours (its old name was taken before it could go
/// back) stays with its record, for the next start to put back.
void QuarantineStore::discard(const QuarantineRecord& record) const {
    struct stat data {};
    if (record.phase == QuarantinePhase::MOVING && folder_.dataStatus(record.item.id, data) != ENOENT) return;
    folder_.erase(record.item.id);
}

StoreResult QuarantineStore::moveIn(const ScannedFile& file, QuarantineRecord& record, uint64_t keepFree) const {
    // Other names of the same file would be sealed with it: such a file is copied.
    if (file.status.st_nlink > 1) return copyInAndRemove(file, record, keepFree);
    // A move takes no room, but what a user's quota gives back the user can fill again.
    if (!hasRoomFor(folder_.get(), 0, keepFree)) return {false, DISK_ALMOST_FULL, ENOSPC};
    if (!renameExactly(file, folder_.get(), StoreFolder::dataName(record.item.id))) {
        if (errno == EXDEV) return copyInAndRemove(file, record, keepFree);
        return refused("the file cannot be moved", file, errno);
    }
    syncOrigin(file);
    folder_.seal(file.file.get());
    ::fsync(folder_.get());
    return success();
}

StoreResult QuarantineStore::copyIn(const ScannedFile& file, const QuarantineRecord& record, uint64_t keepFree) const {
    if (!hasRoomFor(folder_.get(), record.item.size, keepFree)) return {false, DISK_ALMOST_FULL, ENOSPC};
    const FileDescriptor data = createNew(folder_.get(), StoreFolder::dataName(record.item.id));
    if (!data) return failure("the quarantine cannot be written", errno);
    const std::string hash = copyContent(file.file.get(), data.get(), record.item.size);
    if (hash.empty() && errno != EFBIG) return failure("the file cannot be copied", errno);
    if (hash != record.item.sha256) return failure("the file changed while it was copied");
    return ::fsync(folder_.get()) == 0 ? success() : failure("the quarantine cannot be written", errno);
}

StoreResult QuarantineStore::copyInAndRemove(const ScannedFile& file, QuarantineRecord& record,
                                             uint64_t keepFree) const {
    // Nothing is copied from where nothing can be removed, such as a disk that is mounted read-only.
    if (::faccessat(file.folder->get(), ".", W_OK, AT_EACCESS) != 0) {
        return refused("the file cannot be removed", file, errno);
    }
    record.phase = QuarantinePhase::COPYING;
    if (!folder_.write(record, record.phase)) return failure("the quarantine cannot be written", errno);
    StoreResult copied = copyIn(file, record, keepFree);
    if (!copied.done) return copied;
    const std::string passing = StoreFolder::passingName(record.item.id);
    if (!removeExactly(file, passing)) return refused("the file cannot be removed", file, errno);
    syncOrigin(file);
    return success();
}

StoreResult QuarantineStore::destroy(const ScannedFile& file, const QuarantineRecord& record) const {
    // Where nothing can be written the file is deleted all the same: a full disk is no refuge.
    const bool recorded = folder_.write(record, QuarantinePhase::DELETING);
    const bool removed = removeExactly(file, StoreFolder::passingName(record.item.id));
    const int error = errno;
    if (removed) syncOrigin(file);
    if (recorded) atBest([&] { folder_.eraseRecord(record.item.id); });
    if (removed) return success();
    return failure(explainChange(error, file.file.get(), file.folder->get()), error);
}

StoreResult QuarantineStore::giveBack(const std::string& id) const {
    const std::optional<QuarantineRecord> record = folder_.read(id);
    if (!record) return failure("The record of the file cannot be read.");
    const Origin origin = originOf(record->item.path);
    if (origin.error != 0) return cannotOpen(origin.error);
    struct stat status {};
    if (statusOf(origin.folder.get(), origin.name, status)) return cannotPlace(EEXIST, -1);
    if (!folder_.write(*record, QuarantinePhase::RESTORING)) return failure("The quarantine cannot be written", errno);
    StoreResult result = place(*record, origin);
    atBest([&] {
        if (result.done) {
            folder_.erase(id);
        } else {
            folder_.seal(id);
            folder_.write(*record, QuarantinePhase::KEPT);
        }
    });
    return result;
}

StoreResult QuarantineStore::place(const QuarantineRecord& record, const Origin& origin) const {
    StoreResult result = placeByRename(record, origin);
    return result.error == EXDEV ? placeByCopy(record, origin) : result;
}

/// `error` is EXDEV when a copy is needed.
StoreResult QuarantineStore::placeByRename(const QuarantineRecord& record, const Origin& origin) const {
    const std::string data = StoreFolder::dataName(record.item.id);
    const FileDescriptor file = openExisting(folder_.get(), data);
    const std::string hash = file ? sha256Of(file.get(), record.item.size) : std::string();
    if (hash.empty() && (!file || errno != EFBIG)) return failure("The quarantined file cannot be opened", errno);
    // Who had it open for writing when it was put away could still change it.
    if (hash != record.item.sha256) return damaged();
    struct stat here {};
    struct stat there {};
    if (::fstat(file.get(), &here) != 0 || ::fstat(origin.folder.get(), &there) != 0) {
        return failure("The quarantined file cannot be opened", errno);
    }
    if (here.st_dev != there.st_dev) return failure("", EXDEV);
    const AttributeResult applied = applyAttributes(file.get(), attributesOf(record));
    if (!applied.done) return failure("Owner, mode and times cannot be restored", applied.error);
    if (::fsync(file.get()) != 0) return failure("The quarantined file cannot be opened", errno);
    StoreResult placed = success(remarkOn(record, applied.lost));
    if (!renameNoReplace(folder_.get(), data, origin.folder.get(), origin.name)) {
        return errno == EXDEV ? failure("", EXDEV) : cannotPlace(errno, origin.folder.get());
    }
    if (::fsync(origin.folder.get()) != 0) {
        NORV_LOG(NORV_LOG_WARNING, "the folder of %s cannot be synced: %s", record.item.path.c_str(),
                 errorText(errno).c_str());
        placed.message += (placed.message.empty() ? "" : "; ") + std::string(NOT_ON_DISK);
    }
    return placed;
}

/// Whatever fails, no copy is left in the folder.
StoreResult QuarantineStore::placeByCopy(const QuarantineRecord& record, const Origin& origin) const {
    const std::string passing = StoreFolder::passingName(record.item.id);
    try {
        return placeByCopy(record, origin, passing);
    } catch (const std::bad_alloc&) {
        ::unlinkat(origin.folder.get(), passing.c_str(), 0);
        throw;
    }
}

StoreResult QuarantineStore::placeByCopy(const QuarantineRecord& record, const Origin& origin,
                                         const std::string& passing) const {
    const int folder = origin.folder.get();
    const FileDescriptor data = openExisting(folder_.get(), StoreFolder::dataName(record.item.id));
    if (!data) return failure("The quarantined file cannot be opened", errno);
    ::unlinkat(folder, passing.c_str(), 0);  // what an earlier try may have left
    const FileDescriptor copy = createNew(folder, passing);
    if (!copy) return cannotPlace(errno, folder);
    const auto undone = [&](StoreResult result, const std::string& name) {
        ::unlinkat(folder, name.c_str(), 0);
        return result;
    };
    const std::string hash =
        dropInheritedAccess(copy.get()) ? copyContent(data.get(), copy.get(), record.item.size) : std::string();
    if (hash.empty() && errno != EFBIG) return undone(cannotPlace(errno, folder), passing);
    if (hash != record.item.sha256) return undone(damaged(), passing);
    const AttributeResult applied = applyAttributes(copy.get(), attributesOf(record));
    if (!applied.done) return undone(failure("Owner, mode and times cannot be restored", applied.error), passing);
    StoreResult placed = success(remarkOn(record, applied.lost));
    if (::fsync(copy.get()) != 0 || !renameNoReplace(folder, passing, folder, origin.name)) {
        return undone(cannotPlace(errno, folder), passing);
    }
    // The only other copy goes next.
    if (::fsync(folder) != 0) {
        StoreResult result = cannotPlace(errno, folder);
        struct stat status {};
        const bool ours = ::fstat(copy.get(), &status) == 0 && hasInode(folder, origin.name, status.st_ino);
        return ours ? undone(result, origin.name) : result;
    }
    return placed;
}

}  // namespace keldra
