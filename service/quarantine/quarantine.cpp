#include "service/quarantine/quarantine.h"

#include "norv/log.h"
#include "service/tree/file_transfer.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

namespace keldra {

namespace {

/// Bytes by which a file may have grown since it was opened; a sparse one grows without end in no time.
constexpr uint64_t MOST_GROWTH = uint64_t{1} << 30U;
constexpr int64_t NOTICE_INTERVAL = int64_t{15} * 60 * 1000;  // milliseconds
/// Counted at most for one interval, in which the machine may have slept.
constexpr int64_t MOST_SECONDS = 3600;

/// Does something at the end of a scope, however that is left.
template <typename Work>
class AtEnd {
public:
    explicit AtEnd(Work work) : work_(std::move(work)) {}
    ~AtEnd() { work_(); }
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;

private:
    Work work_;
};

}  // namespace

Quarantine::Quarantine(const std::string& folder, std::string trustFile, const Clock& clock)
    : clock_(clock), store_(folder), trusted_(std::move(trustFile)), notice_(folder + "/announced") {}

bool Quarantine::open() {
    trusted_.read();
    if (!store_.open()) return false;
    std::vector<QuarantineRecord> records = store_.repair();
    for (QuarantineRecord& record : records) keep(readyToKeep(std::move(record)));
    const std::lock_guard lock(mutex_);
    notice_.read();
    usable_ = true;
    return true;
}

/// What `keep` lists, so that a file which was put away is never without its record for want of memory. The attributes
/// stay on disk only: users of a share choose how large they are.
Quarantine::Records Quarantine::readyToKeep(QuarantineRecord record) {
    record.extended.reset();
    Records ready;
    const std::string id = record.item.id;
    ready.emplace(id, std::move(record));
    return ready;
}

void Quarantine::keep(Records ready) {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, record] : ready) bytes_ += record.item.size;
    records_.merge(ready);
}

QuarantineResult Quarantine::take(const ScannedFile& file, const QuarantineReason& reason) {
    return put(file, reason, false);
}

QuarantineResult Quarantine::backup(const ScannedFile& file, const QuarantineReason& reason) {
    return put(file, reason, true);
}

std::optional<QuarantineRecord> Quarantine::newRecord(const ScannedFile& file, const QuarantineReason& reason,
                                                      QuarantineResult& refusal) const {
    {
        const std::lock_guard lock(mutex_);
        if (!usable_) {
            refusal.message = "the quarantine cannot be used";
            return std::nullopt;
        }
    }
    QuarantineRecord record = recordOf(file, reason);
    record.item.id = randomName();
    record.item.sha256 = sha256Of(file.file.get(), record.item.size + MOST_GROWTH);
    record.item.when = timeOfDay();
    if (!record.item.id.empty() && !record.item.sha256.empty()) return record;
    refusal.message = "the file cannot be read: " + errorText(errno);
    return std::nullopt;
}

/// Not before what is known to have been earlier: a clock that is behind, as on a machine that has just started, must
/// not make a new item an old one, whose time is over.
int64_t Quarantine::timeOfDay() const {
    int64_t newest = 0;
    {
        const std::lock_guard lock(mutex_);
        for (const auto& [id, record] : records_) newest = std::max(newest, record.item.when);
    }
    return std::max(clock_.now(), std::min(newest, store_.lastChange()));
}

QuarantineResult Quarantine::put(const ScannedFile& file, const QuarantineReason& reason, bool backup) {
    const InodeClaims::Claim claim(claims_, file.status);
    QuarantineResult refusal;
    std::optional<QuarantineRecord> record = newRecord(file, reason, refusal);
    if (!record) return refusal;
    record->item.backup = backup;
    const std::string kept = backup ? backupLike(record->item) : takenAlready(file, *record);
    if (!kept.empty()) return {true, "", kept, false};
    if (!reserve(record->item.size)) return {false, "the quarantine is full", "", true};
    const AtEnd arrived([this, size = record->item.size] {
        const std::lock_guard lock(mutex_);
        reserved_ -= size;
        --arriving_;
    });
    return store(file, *record);
}

QuarantineResult Quarantine::store(const ScannedFile& file, QuarantineRecord record) {
    QuarantineLimits limits;
    {
        const std::lock_guard lock(mutex_);
        limits = limits_;
    }
    QuarantineResult stored{true, "", record.item.id, false};
    Records ready = readyToKeep(record);
    const StoreResult result = store_.put(file, std::move(record), roomToKeep(limits, store_.path()));
    if (!result.done) return {false, result.message, "", result.error == ENOSPC};
    keep(std::move(ready));
    return stored;
}

QuarantineResult Quarantine::destroy(const ScannedFile& file, const QuarantineReason& reason) {
    const InodeClaims::Claim claim(claims_, file.status);
    QuarantineRecord record = recordOf(file, reason);
    record.item.id = randomName();
    if (record.item.id.empty()) return {false, "the quarantine cannot be used", "", false};
    const StoreResult result = store_.destroy(file, record);
    return {result.done, result.message, "", false};
}

bool Quarantine::reserve(uint64_t bytes) {
    const std::lock_guard lock(mutex_);
    const bool fits = limits_.bytes == 0 || (bytes <= limits_.bytes && bytes_ + reserved_ <= limits_.bytes - bytes);
    const bool counts = limits_.files == 0 || records_.size() + arriving_ < limits_.files;
    if (!fits || !counts) {
        full_ = true;
        return false;
    }
    reserved_ += bytes;
    ++arriving_;
    return true;
}

std::string Quarantine::takenAlready(const ScannedFile& file, const QuarantineRecord& record) const {
    if (file.stillThere()) return "";
    const std::lock_guard lock(mutex_);
    for (const auto& [id, other] : records_) {
        const bool same = other.inode == record.inode && other.device == record.device && !other.item.backup &&
                          other.item.sha256 == record.item.sha256 && other.item.path == record.item.path;
        if (same) return id;
    }
    return "";
}

void Quarantine::setLimits(const QuarantineLimits& limits) {
    const std::lock_guard lock(mutex_);
    if (limits_ != limits) full_ = false;
    limits_ = limits;
}

uint64_t QuarantineUse::room(uint64_t diskFree, uint64_t diskSize) const {
    const uint64_t keep = roomToKeep(limits, diskSize);
    const uint64_t onDisk = diskFree == UINT64_MAX ? UINT64_MAX : diskFree - std::min(diskFree, keep);
    const bool counts = limits.files == 0 || files < limits.files;
    const uint64_t within = limits.bytes == 0 ? UINT64_MAX : limits.bytes - std::min(limits.bytes, bytes);
    return counts ? std::min(onDisk, within) : 0;
}

QuarantineUse Quarantine::use() const {
    const std::lock_guard lock(mutex_);
    QuarantineUse use{records_.size(), bytes_, limits_, full_, notice_.announced().size(), 0, 0, 0};
    for (const auto& [id, record] : records_)
        use.oldest = use.oldest == 0 ? record.item.when : std::min(use.oldest, record.item.when);
    int64_t longest = 0;
    for (const auto& [id, seconds] : notice_.announced()) {
        const auto found = records_.find(id);
        if (found != records_.end()) use.announcedBytes += found->second.item.size;
        longest = std::max(longest, seconds);
    }
    if (use.announced > 0) use.nextRemoval = std::max<int64_t>(limits_.announced - longest, 0);
    return use;
}

void Quarantine::tidy() noexcept try {
    cutWhatGrew();
    announceAndRemove();
} catch (const std::exception& error) {
    NORV_LOG(NORV_LOG_ERROR, "the quarantine cannot be tidied for now: %s", error.what());
}

/// Who has a file open for writing when it is moved here can go on writing, and it counts for nobody's quota. Looked at
/// when that begins to matter.
void Quarantine::cutWhatGrew() {
    std::vector<std::pair<std::string, uint64_t>> sizes;
    {
        const std::lock_guard lock(mutex_);
        if (!usable_ || store_.hasRoom(roomToKeep(limits_, store_.path()))) return;
        sizes.reserve(records_.size());
        for (const auto& [id, record] : records_)
            if (busy_.count(id) == 0) sizes.emplace_back(id, record.item.size);
    }
    for (const auto& [id, size] : sizes) store_.cutTo(id, size);
}

void Quarantine::announceAndRemove() {
    const int64_t now = clock_.steadyMilliseconds();
    std::vector<std::string> over;
    std::size_t more = 0;
    int64_t wait = 0;
    {
        const std::lock_guard lock(mutex_);
        if (!usable_ || (tidied_ && now - *tidied_ < NOTICE_INTERVAL)) return;
        const int64_t seconds = tidied_ ? std::min((now - *tidied_) / 1000, MOST_SECONDS) : 0;
        tidied_ = now;
        std::vector<QuarantineItem> items;
        items.reserve(records_.size());
        for (const auto& [id, record] : records_) items.push_back(record.item);
        const std::size_t before = notice_.announced().size();
        over = notice_.update(itemsToGo(std::move(items), limits_, clock_.now()), seconds, limits_.announced);
        const std::size_t count = notice_.announced().size();
        more = count > before ? count - before : 0;
        wait = limits_.announced;
        if (before == 0 && count == 0) return;
    }
    if (more > 0) {
        NORV_LOG(NORV_LOG_WARNING, "%zu files in quarantine are to be removed, the first in %lld hours", more,
                 static_cast<long long>(wait / 3600));
        if (told_.announced) told_.announced(more, wait);
    }
    removeAnnounced(over);
    const std::lock_guard lock(mutex_);
    notice_.write();
}

void Quarantine::removeAnnounced(const std::vector<std::string>& ids) {
    std::vector<QuarantineItem> gone;
    for (const std::string& id : ids) {
        std::optional<QuarantineItem> item = find(id);
        const QuarantineResult removed = remove(id);
        if (removed.done && item) gone.push_back(std::move(*item));
        if (!removed.done)
            NORV_LOG(NORV_LOG_WARNING, "%s stays in quarantine: %s", id.c_str(), removed.message.c_str());
    }
    if (!gone.empty() && told_.removed) told_.removed(gone);
}

std::string Quarantine::backupLike(const QuarantineItem& item) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, record] : records_) {
        const QuarantineItem& kept = record.item;
        if (kept.backup && kept.sha256 == item.sha256 && kept.path == item.path && busy_.count(id) == 0) return id;
    }
    return "";
}

std::vector<QuarantineItem> Quarantine::list(std::size_t from, std::size_t count) const {
    const std::lock_guard lock(mutex_);
    std::vector<const QuarantineItem*> newest;
    newest.reserve(records_.size());
    for (const auto& [id, record] : records_) newest.push_back(&record.item);
    std::stable_sort(newest.begin(), newest.end(),
                     [](const QuarantineItem* a, const QuarantineItem* b) { return a->when > b->when; });
    std::vector<QuarantineItem> items;
    for (std::size_t i = from; i < newest.size() && items.size() < count; ++i) items.push_back(*newest[i]);
    return items;
}

std::size_t Quarantine::size() const {
    const std::lock_guard lock(mutex_);
    return records_.size();
}

std::optional<QuarantineItem> Quarantine::find(const std::string& id) const {
    const std::lock_guard lock(mutex_);
    const auto found = records_.find(id);
    if (found == records_.end()) return std::nullopt;
    return found->second.item;
}

std::optional<QuarantineRecord> Quarantine::claim(const std::string& id, QuarantineResult& refusal) {
    const std::lock_guard lock(mutex_);
    const auto found = records_.find(id);
    if (found == records_.end()) {
        refusal = {false, "There is no such file in quarantine.", id, false};
        return std::nullopt;
    }
    std::optional<QuarantineRecord> record = found->second;
    if (!busy_.insert(id).second) {
        refusal = {false, "The file is being worked on.", id, false};
        return std::nullopt;
    }
    return record;
}

void Quarantine::release(const std::string& id, bool gone) {
    const std::lock_guard lock(mutex_);
    busy_.erase(id);
    const auto found = records_.find(id);
    if (!gone || found == records_.end()) return;
    bytes_ -= found->second.item.size;
    records_.erase(found);
    notice_.forget(id);
    full_ = false;
}

QuarantineResult Quarantine::restore(const std::string& id) {
    QuarantineResult refusal;
    const std::optional<QuarantineRecord> record = claim(id, refusal);
    if (!record) return refusal;
    bool gone = false;
    const AtEnd released([&] { release(id, gone); });
    const StoreResult result = store_.giveBack(id);
    gone = result.done;
    if (result.done) NORV_LOG(NORV_LOG_INFO, "restored %s from quarantine", record->item.path.c_str());
    return {result.done, result.message, id, false};
}

QuarantineResult Quarantine::remove(const std::string& id) {
    QuarantineResult refusal;
    const std::optional<QuarantineRecord> record = claim(id, refusal);
    if (!record) return refusal;
    bool gone = false;
    const AtEnd released([&] { release(id, gone); });
    const StoreResult result = store_.erase(id);
    gone = result.done;
    if (result.done) NORV_LOG(NORV_LOG_INFO, "deleted %s from quarantine", record->item.path.c_str());
    return {result.done, result.message, id, false};
}

QuarantineResult Quarantine::trust(const std::string& id) {
    const std::optional<QuarantineItem> item = find(id);
    if (!item) return {false, "There is no such file in quarantine.", id, false};
    const std::string problem = trusted_.add(item->sha256, item->path);
    if (!problem.empty()) return {false, problem, id, false};
    NORV_LOG(NORV_LOG_INFO, "trusted %s (%s)", item->path.c_str(), item->sha256.c_str());
    return {true, "", id, false};
}

bool Quarantine::isTrusted(int fd) { return trusted_.contains(fd); }

std::map<std::string, std::string> Quarantine::trusted() { return trusted_.all(); }

QuarantineResult Quarantine::distrust(const std::string& sha256) {
    const std::string problem = trusted_.remove(sha256);
    return {problem.empty(), problem, "", false};
}

}  // namespace keldra
