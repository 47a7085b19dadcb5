#pragma once

#include "service/quarantine/quarantine_item.h"
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
#include <vector>

namespace keldra {

/// How an operation on the quarantine ended; `message` is English and says why not.
struct QuarantineResult {
    bool done = false;
    std::string message;
    std::string id;  ///< of the item concerned
};

/// Points at which a test may let the service "die"; never set in the service.
using QuarantineStep = std::function<bool(const char* step)>;

/// Files put away where they do no harm, each under a random name with a record beside it. A record is on disk before
/// anything happens to the file, so whatever was interrupted is finished or undone by `open`. May be used from any
/// thread.
class Quarantine {
public:
    /// `folder` is made, for the service only, when it is missing. `trustFile` lists the trusted hashes.
    Quarantine(std::string folder, std::string trustFile);

    /// Makes the folder and completes or undoes what was interrupted. False, with a log line, when the quarantine
    /// cannot be used; a list of trusted contents that cannot be read is no reason. To be called once, before the rest.
    bool open();

    /// Moves a file into quarantine. Goes by its descriptor: when its path no longer leads to it, nothing is removed
    /// and the call fails.
    QuarantineResult take(const ScannedFile& file, const QuarantineReason& reason);
    /// Keeps a copy of a file and leaves the file alone. A file that is found again as it was has one copy, not one for
    /// each time.
    QuarantineResult backup(const ScannedFile& file, const QuarantineReason& reason);

    /// The items from number `from` on, newest first, at most `count`.
    std::vector<QuarantineItem> list(std::size_t from = 0, std::size_t count = SIZE_MAX) const;
    std::size_t size() const;
    std::optional<QuarantineItem> find(const std::string& id) const;

    /// Puts a file back with its path, owner, mode and times. Nothing is overwritten, and a folder that is gone is not
    /// made anew: both are refused and say so.
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

    /// For tests: asked before each step; false stops the operation there, as a power cut would.
    void setStepHook(QuarantineStep hook) { store_.setStepHook(std::move(hook)); }

private:
    QuarantineResult put(const ScannedFile& file, const QuarantineReason& reason, bool backup);
    /// The id of a backup of the same content from the same path; empty when there is none.
    std::string backupLike(const QuarantineItem& item) const;
    /// Marks an item as worked on, so that nothing else touches it; its record, or nothing when it is unknown or taken.
    std::optional<QuarantineRecord> claim(const std::string& id, QuarantineResult& refusal);
    void release(const std::string& id, bool gone);

    QuarantineStore store_;
    TrustList trusted_;
    bool usable_ = false;
    mutable std::mutex mutex_;
    std::map<std::string, QuarantineRecord> records_;
    std::set<std::string> busy_;  ///< items that an operation is working on
};

}  // namespace keldra
