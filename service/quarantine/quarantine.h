#pragma once

#include "service/base/clock.h"
#include "service/quarantine/inode_claims.h"
#include "service/quarantine/quarantine_item.h"
#include "service/quarantine/quarantine_limits.h"
#include "service/quarantine/quarantine_record.h"
#include "service/quarantine/quarantine_store.h"
#include "service/quarantine/trust_list.h"
#include "service/tree/scanned_file.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace keldra {

/// How an operation on the quarantine ended.
struct QuarantineResult {
    bool done = false;
    std::string message;  ///< English: why not, or what is to be told although it was done
    std::string id;       ///< of the item concerned
    bool full = false;    ///< not done because the quarantine has no room
};

/// How full the quarantine is, and what is going to be removed from it.
struct QuarantineUse {
    uint64_t files = 0;
    uint64_t bytes = 0;
    QuarantineLimits limits;
    bool full = false;            ///< a find had no room since something was last removed
    std::size_t announced = 0;    ///< items that are to go
    uint64_t announcedBytes = 0;  ///< of these
    int64_t nextRemoval = 0;      ///< seconds until the first of them goes, while the service runs
    int64_t oldest = 0;           ///< when the oldest item was put away, seconds since the epoch; 0: there is none

    /// Bytes that may still be put away on a disk of which so many are free; UINT64_MAX: nothing limits it.
    uint64_t room(uint64_t diskFree, uint64_t diskSize) const;
};

/// Told of what `Quarantine::tidy` does. Must not call the quarantine.
struct QuarantineTidying {
    /// So many items more are to go, the first of them after so many seconds of service.
    std::function<void(std::size_t count, int64_t seconds)> announced{};
    std::function<void(const std::vector<QuarantineItem>& items)> removed{};
};

/// Files put away where they do no harm, each under a random name with a record beside it. A record is on disk before
/// anything happens to the file, so whatever was interrupted is finished or undone by `open`. May be used from any
/// thread.
class Quarantine {
public:
    /// `folder` is made, for the service only, when it is missing. `trustFile` lists the trusted hashes.
    Quarantine(const std::string& folder, std::string trustFile, const Clock& clock = systemClock());

    /// Makes the folder and completes or undoes what was interrupted. False, with a log line, when the quarantine
    /// cannot be used; a list of trusted contents that cannot be read is no reason. To be called once, before the rest.
    bool open();

    /// Moves a file into quarantine. Goes by its descriptor: when its path no longer leads to it, nothing is removed
    /// and the call fails; a file that another task put away meanwhile is the item of that task.
    QuarantineResult take(const ScannedFile& file, const QuarantineReason& reason);
    /// Keeps a copy of a file and leaves the file alone. A file that is found again as it was has one copy, not one for
    /// each time.
    QuarantineResult backup(const ScannedFile& file, const QuarantineReason& reason);
    /// Deletes a file where it is. Goes by its descriptor, too; a start completes what was interrupted.
    QuarantineResult destroy(const ScannedFile& file, const QuarantineReason& reason);

    /// The items from number `from` on, newest first, at most `count`.
    std::vector<QuarantineItem> list(std::size_t from = 0, std::size_t count = SIZE_MAX) const;
    std::size_t size() const;
    std::optional<QuarantineItem> find(const std::string& id) const;

    /// Puts a file back with its path and all of its attributes. Nothing is overwritten, and a folder that is gone is
    /// not made anew: both are refused and say so. May be tried again after any failure.
    QuarantineResult restore(const std::string& id);
    /// Deletes an item for good.
    QuarantineResult remove(const std::string& id);
    /// Trusts the content of an item: a file of the same content is clean from now on. The item stays until it is
    /// restored or removed.
    QuarantineResult trust(const std::string& id);

    /// Whether the content of an open file is trusted.
    bool isTrusted(int fd);
    /// The trusted hashes with the path or name they were trusted for.
    std::map<std::string, std::string> trusted();
    /// Trusts a content no longer.
    QuarantineResult distrust(const std::string& sha256);

    /// Set it before the quarantine is used by several.
    void onTidying(QuarantineTidying told) { told_ = std::move(told); }
    /// From now on. A quarantine that holds more keeps what it has until that was announced for long enough.
    void setLimits(const QuarantineLimits& limits);
    QuarantineUse use() const;
    /// Announces what is to go and removes what was announced for long enough. To be called every few minutes, not
    /// from a thread that others wait for.
    void tidy() noexcept;

private:
    QuarantineResult put(const ScannedFile& file, const QuarantineReason& reason, bool backup);
    QuarantineResult store(const ScannedFile& file, QuarantineRecord record);
    /// The record of a file with a new id and its hash; `refusal` says why there is none.
    std::optional<QuarantineRecord> newRecord(const ScannedFile& file, const QuarantineReason& reason,
                                              QuarantineResult& refusal) const;
    /// The id of an item that is this very file, put away already; empty when there is none.
    std::string takenAlready(const ScannedFile& file, const QuarantineRecord& record) const;
    bool reserve(uint64_t bytes);
    using Records = std::map<std::string, QuarantineRecord>;
    static Records readyToKeep(QuarantineRecord record);
    void keep(Records ready);
    void cutWhatGrew();
    void announceAndRemove();
    void removeAnnounced(const std::vector<std::string>& ids);
    int64_t timeOfDay() const;
    /// The id of a backup of the same content from the same path; empty when there is none.
    std::string backupLike(const QuarantineItem& item) const;
    /// Marks an item as worked on, so that nothing else touches it; its record, or nothing when it is unknown or taken.
    std::optional<QuarantineRecord> claim(const std::string& id, QuarantineResult& refusal);
    void release(const std::string& id, bool gone);

    const Clock& clock_;
    QuarantineStore store_;
    TrustList trusted_;
    InodeClaims claims_;
    bool usable_ = false;
    mutable std::mutex mutex_;
    Records records_;
    std::set<std::string> busy_;  ///< items that an operation is working on
    QuarantineLimits limits_;
    RemovalNotice notice_;
    uint64_t bytes_ = 0;     ///< of all items
    uint64_t reserved_ = 0;  ///< bytes of files that are just being put away
    uint64_t arriving_ = 0;  ///< the number of these
    bool full_ = false;
    QuarantineTidying told_;
    std::optional<int64_t> tidied_;  ///< steady milliseconds of the last call
};

}  // namespace keldra
