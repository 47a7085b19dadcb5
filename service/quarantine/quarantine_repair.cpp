#include "service/quarantine/quarantine_repair.h"

#include "norv/log.h"
#include "service/quarantine/origin.h"
#include "service/tree/file_transfer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace keldra {

namespace {

/// What an interrupted operation comes to: the item stays; all is left for the next start, since something could not
/// be looked at, with the item shown or not; the record goes; content and record go.
enum class Mend { KEEP, LATER, HIDE, FORGET, ERASE };

class Repair {
public:
    explicit Repair(const StoreFolder& store) : store_(store), records_(store.readAll()) {}
    std::vector<QuarantineRecord> run();

private:
    Mend mend(const QuarantineRecord& record) const;
    Mend mendMove(const QuarantineRecord& record, const struct stat& data) const;
    Mend mendCopy(const QuarantineRecord& record, const struct stat& data) const;
    Mend mendBackup(const QuarantineRecord& record) const;
    Mend mendRestore(const QuarantineRecord& record) const;
    Mend mendDeletion(const QuarantineRecord& record) const;
    bool isKeptElsewhere(const QuarantineRecord& record) const;
    Content dataOf(const QuarantineRecord& record) const {
        return contentOf(store_.get(), StoreFolder::dataName(record.item.id), record.item.sha256, record.item.size);
    }
    static void log(const QuarantineRecord& record, Mend result);

    const StoreFolder& store_;
    std::vector<QuarantineRecord> records_;
};

std::vector<QuarantineRecord> Repair::run() {
    std::vector<QuarantineRecord> kept;
    for (const QuarantineRecord& record : records_) {
        const Mend result = mend(record);
        if (record.phase != QuarantinePhase::KEPT) log(record, result);
        if (result == Mend::FORGET) store_.eraseRecord(record.item.id);
        if (result == Mend::ERASE) store_.erase(record.item.id);
        if (result != Mend::KEEP && result != Mend::LATER) continue;
        if (result == Mend::KEEP && record.phase != QuarantinePhase::KEPT) store_.write(record, QuarantinePhase::KEPT);
        kept.push_back(record);
        kept.back().phase = QuarantinePhase::KEPT;
    }
    return kept;
}

void Repair::log(const QuarantineRecord& record, Mend result) {
    const bool later = result == Mend::LATER || result == Mend::HIDE;
    const char* const became = result == Mend::KEEP ? "is now complete"
                               : later              ? "cannot be mended now; nothing was removed"
                                                    : "is now undone";
    NORV_LOG(NORV_LOG_WARNING, "quarantine of %s was interrupted and %s", record.item.path.c_str(),
             record.phase == QuarantinePhase::DELETING && !later ? "is now complete" : became);
}

Mend Repair::mend(const QuarantineRecord& record) const {
    if (record.phase == QuarantinePhase::DELETING) return mendDeletion(record);
    struct stat data {};
    const int error = store_.dataStatus(record.item.id, data);
    if (error == ENOENT) return Mend::FORGET;
    if (error != 0) return Mend::LATER;
    switch (record.phase) {
        case QuarantinePhase::MOVING:
            return mendMove(record, data);
        case QuarantinePhase::COPYING:
            return mendCopy(record, data);
        case QuarantinePhase::BACKING_UP:
            return mendBackup(record);
        case QuarantinePhase::RESTORING:
            return mendRestore(record);
        case QuarantinePhase::KEPT:
        case QuarantinePhase::DELETING:
            break;
    }
    return Mend::KEEP;
}

/// The file was renamed; if it was another one that had got its name, that one goes back. Where a rename is a link and
/// an unlink, the file may bear both names: the move had not come to its end.
Mend Repair::mendMove(const QuarantineRecord& record, const struct stat& data) const {
    const Origin origin = originOf(record.item.path);
    if (origin.error == 0) {
        struct stat there {};
        const bool shown = statusOf(origin.folder.get(), origin.name, there);
        if (shown && there.st_dev == data.st_dev && there.st_ino == data.st_ino) return Mend::ERASE;
        if (data.st_ino != record.inode &&
            renameNoReplace(store_.get(), StoreFolder::dataName(record.item.id), origin.folder.get(), origin.name)) {
            return Mend::FORGET;
        }
    }
    store_.seal(record.item.id);
    return Mend::KEEP;
}

/// Whether another record holds the same file, put away by another task.
bool Repair::isKeptElsewhere(const QuarantineRecord& record) const {
    return std::any_of(records_.begin(), records_.end(), [&](const QuarantineRecord& other) {
        return other.item.id != record.item.id && !other.item.backup && other.item.path == record.item.path &&
               other.item.sha256 == record.item.sha256 && dataOf(other) == Content::SAME;
    });
}

/// The copy counts once the file itself has left its name. It is given up for a file that provably has the same
/// content, and when it had not come to its end: then the file was not touched yet. Whatever cannot be read may be the
/// last one there is.
Mend Repair::mendCopy(const QuarantineRecord& record, const struct stat& data) const {
    const Content content = dataOf(record);
    const Origin origin = originOf(record.item.path);
    if (origin.error == 0) {
        const std::string passing = StoreFolder::passingName(record.item.id);
        if (hasInode(origin.folder.get(), passing, record.inode)) {
            if (content == Content::SAME) {
                ::unlinkat(origin.folder.get(), passing.c_str(), 0);
                return Mend::KEEP;
            }
            renameNoReplace(origin.folder.get(), passing, origin.folder.get(), origin.name);
        }
        if (contentOf(origin.folder.get(), origin.name, record.item.sha256, record.item.size) == Content::SAME)
            return Mend::ERASE;
    }
    const bool cut = content == Content::OTHER && static_cast<uint64_t>(data.st_size) < record.item.size;
    if (cut || isKeptElsewhere(record)) return Mend::ERASE;
    return content == Content::SAME ? Mend::KEEP : Mend::LATER;
}

/// Half a backup is none; the file itself was left in place.
Mend Repair::mendBackup(const QuarantineRecord& record) const {
    switch (dataOf(record)) {
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
Mend Repair::mendRestore(const QuarantineRecord& record) const {
    const Origin origin = originOf(record.item.path);
    if (origin.error == 0) {
        ::unlinkat(origin.folder.get(), StoreFolder::passingName(record.item.id).c_str(), 0);
        if (contentOf(origin.folder.get(), origin.name, record.item.sha256, record.item.size) == Content::SAME)
            return Mend::ERASE;
    }
    store_.seal(record.item.id);
    return Mend::KEEP;
}

/// A file that was set aside to be deleted is deleted now.
Mend Repair::mendDeletion(const QuarantineRecord& record) const {
    const Origin origin = originOf(record.item.path);
    if (origin.error != 0) return origin.error == ENOENT ? Mend::FORGET : Mend::HIDE;
    const std::string passing = StoreFolder::passingName(record.item.id);
    if (!hasInode(origin.folder.get(), passing, record.inode)) return Mend::FORGET;
    return ::unlinkat(origin.folder.get(), passing.c_str(), 0) == 0 ? Mend::FORGET : Mend::HIDE;
}

}  // namespace

std::vector<QuarantineRecord> repairQuarantine(const StoreFolder& store) { return Repair(store).run(); }

}  // namespace keldra
