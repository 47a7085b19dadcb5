#pragma once

#include "service/base/files.h"
#include "service/quarantine/quarantine_record.h"
#include "service/tree/scanned_file.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace keldra {

/// How a step of the store ended. `message` is English and says why it was not done.
struct StoreResult {
    bool done = false;
    std::string message;
    bool dead = false;  ///< a test's "power cut": nothing may be tidied up any more
};

/// The quarantine's folder: for each item a record "<id>.json" and the content "<id>.data". Keeps nothing in memory and
/// does not lock; no two calls for one item may run at the same time.
class QuarantineStore {
public:
    explicit QuarantineStore(std::string folder) : path_(std::move(folder)) {}

    /// Makes and opens the folder, 0700. False, with a log line, when that fails.
    bool open();

    /// Moves the file in, or copies it when `record.item.backup` is set. The record's id and hash must be filled.
    StoreResult put(const ScannedFile& file, QuarantineRecord record);
    /// Puts an item back where it came from and forgets it.
    StoreResult giveBack(const QuarantineRecord& record);
    /// Deletes an item's content and record.
    StoreResult erase(const std::string& id);
    /// Completes or undoes whatever was interrupted and returns the records of all items that are there then. Nothing
    /// is deleted for want of being readable.
    std::vector<QuarantineRecord> repair();

    void setStepHook(std::function<bool(const char*)> hook) { hook_ = std::move(hook); }

private:
    /// What an interrupted operation comes to: the item stays; all is left for the next start, since something could
    /// not be looked at; the record goes; content and record go.
    enum class Mend { KEEP, LATER, FORGET, ERASE };

    void discard(const QuarantineRecord& record);
    StoreResult moveIn(const ScannedFile& file, QuarantineRecord& record);
    StoreResult copyIn(const ScannedFile& file, const QuarantineRecord& record);
    StoreResult copyInAndRemove(const ScannedFile& file, QuarantineRecord& record);
    StoreResult placeByRename(const QuarantineRecord& record, int folder, const std::string& name);
    StoreResult placeByCopy(const QuarantineRecord& record, int folder, const std::string& name);
    StoreResult place(const QuarantineRecord& record, int folder, const std::string& name);

    bool write(const QuarantineRecord& record, QuarantinePhase phase) const;
    void seal(int fd) const;
    void sealData(const std::string& id) const;
    int dataStatus(const std::string& id, struct stat& status) const;
    StoreResult eraseRecord(const std::string& id);
    bool readRecords(std::vector<QuarantineRecord>& records) const;

    Mend mend(const QuarantineRecord& record) const;
    Mend mendMove(const QuarantineRecord& record, const struct stat& data) const;
    Mend mendCopy(const QuarantineRecord& record) const;
    Mend mendBackup(const QuarantineRecord& record) const;
    Mend mendRestore(const QuarantineRecord& record) const;
    static void logMended(const QuarantineRecord& record, Mend result);

    bool step(const char* name) const { return !hook_ || hook_(name); }

    std::string path_;
    FileDescriptor folder_;
    std::function<bool(const char*)> hook_;
};

}  // namespace keldra
