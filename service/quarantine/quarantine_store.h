#pragma once

#include "service/quarantine/quarantine_record.h"
#include "service/quarantine/store_folder.h"
#include "service/tree/scanned_file.h"

#include <cstdint>
#include <string>
#include <vector>

namespace keldra {

struct Origin;

/// Puts files into the quarantine's folder and back, in steps that a start can complete or undo wherever they were
/// interrupted. Keeps nothing in memory and does not lock; no two calls for one item may run at the same time.
class QuarantineStore {
public:
    explicit QuarantineStore(std::string folder) : folder_(std::move(folder)) {}

    /// Makes and opens the folder, 0700. False, with a log line, when that fails.
    bool open() { return folder_.open(); }
    /// Completes or undoes whatever was interrupted; the records of all items that are there then.
    std::vector<QuarantineRecord> repair() const;
    const std::string& path() const { return folder_.path(); }
    int64_t lastChange() const { return folder_.lastChange(); }

    /// Moves the file in, or copies it when `record.item.backup` is set. The record's id and hash must be filled.
    /// `keepFree`: bytes that must be free on the disk, and that a copy leaves free.
    StoreResult put(const ScannedFile& file, QuarantineRecord record, uint64_t keepFree) const;
    /// Deletes a file where it is; the record tells a start what was under way.
    StoreResult destroy(const ScannedFile& file, const QuarantineRecord& record) const;
    /// Puts an item back where it came from and forgets it. May be tried again after any failure.
    StoreResult giveBack(const std::string& id) const;
    /// Takes back the room that a content took after it was put away.
    void cutTo(const std::string& id, uint64_t size) const { folder_.cutTo(id, size); }
    /// Whether the disk has so many bytes free.
    bool hasRoom(uint64_t bytes) const;
    /// Deletes an item's content and record.
    StoreResult erase(const std::string& id) const { return folder_.erase(id); }

private:
    void discard(const QuarantineRecord& record) const;
    StoreResult moveIn(const ScannedFile& file, QuarantineRecord& record, uint64_t keepFree) const;
    StoreResult copyIn(const ScannedFile& file, const QuarantineRecord& record, uint64_t keepFree) const;
    StoreResult copyInAndRemove(const ScannedFile& file, QuarantineRecord& record, uint64_t keepFree) const;
    StoreResult place(const QuarantineRecord& record, const Origin& origin) const;
    StoreResult placeByRename(const QuarantineRecord& record, const Origin& origin) const;
    StoreResult placeByCopy(const QuarantineRecord& record, const Origin& origin) const;
    StoreResult placeByCopy(const QuarantineRecord& record, const Origin& origin, const std::string& passing) const;

    StoreFolder folder_;
};

/// The text of a refusal because the disk has no room for a copy.
inline constexpr const char* DISK_ALMOST_FULL = "the disk of the quarantine is almost full";

}  // namespace keldra
