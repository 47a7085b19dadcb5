#include "service/quarantine/quarantine.h"

#include "norv/log.h"
#include "service/tree/file_transfer.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

namespace keldra {

Quarantine::Quarantine(std::string folder, std::string trustFile)
    : store_(std::move(folder)), trusted_(std::move(trustFile)) {}

bool Quarantine::open() {
    trusted_.read();
    if (!store_.open()) return false;
    const std::lock_guard lock(mutex_);
    for (QuarantineRecord& record : store_.repair()) {
        const std::string id = record.item.id;
        records_[id] = std::move(record);
    }
    usable_ = true;
    return true;
}

QuarantineResult Quarantine::take(const ScannedFile& file, const QuarantineReason& reason) {
    return put(file, reason, false);
}

QuarantineResult Quarantine::backup(const ScannedFile& file, const QuarantineReason& reason) {
    return put(file, reason, true);
}

QuarantineResult Quarantine::put(const ScannedFile& file, const QuarantineReason& reason, bool backup) {
    {
        const std::lock_guard lock(mutex_);
        if (!usable_) return {false, "the quarantine cannot be used", ""};
    }
    QuarantineRecord record = recordOf(file, reason);
    record.item.id = randomName();
    record.item.sha256 = sha256Of(file.file.get());
    record.item.when = std::time(nullptr);
    record.item.backup = backup;
    if (record.item.id.empty() || record.item.sha256.empty()) {
        return {false, "the file cannot be read: " + errorText(errno), ""};
    }
    if (backup) {
        const std::string kept = backupLike(record.item);
        if (!kept.empty()) return {true, "", kept};
    }
    const StoreResult result = store_.put(file, record);
    if (!result.done) return {false, result.message, ""};
    const std::lock_guard lock(mutex_);
    records_[record.item.id] = record;
    return {true, "", record.item.id};
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
        refusal = {false, "There is no such file in quarantine.", id};
        return std::nullopt;
    }
    if (!busy_.insert(id).second) {
        refusal = {false, "The file is being worked on.", id};
        return std::nullopt;
    }
    return found->second;
}

void Quarantine::release(const std::string& id, bool gone) {
    const std::lock_guard lock(mutex_);
    busy_.erase(id);
    if (gone) records_.erase(id);
}

QuarantineResult Quarantine::restore(const std::string& id) {
    QuarantineResult refusal;
    const std::optional<QuarantineRecord> record = claim(id, refusal);
    if (!record) return refusal;
    const StoreResult result = store_.giveBack(*record);
    release(id, result.done);
    if (result.done) NORV_LOG(NORV_LOG_INFO, "restored %s from quarantine", record->item.path.c_str());
    return {result.done, result.message, id};
}

QuarantineResult Quarantine::remove(const std::string& id) {
    QuarantineResult refusal;
    const std::optional<QuarantineRecord> record = claim(id, refusal);
    if (!record) return refusal;
    const StoreResult result = store_.erase(id);
    release(id, result.done);
    if (result.done) NORV_LOG(NORV_LOG_INFO, "deleted %s from quarantine", record->item.path.c_str());
    return {result.done, result.message, id};
}

QuarantineResult Quarantine::trust(const std::string& id) {
    const std::optional<QuarantineItem> item = find(id);
    if (!item) return {false, "There is no such file in quarantine.", id};
    if (!trusted_.read()) return {false, "The list of trusted files cannot be read.", id};
    if (!trusted_.add(item->sha256, item->path)) return {false, "The list of trusted files cannot be written.", id};
    NORV_LOG(NORV_LOG_INFO, "trusted %s (%s)", item->path.c_str(), item->sha256.c_str());
    return {true, "", id};
}

bool Quarantine::isTrusted(int fd) { return trusted_.contains(fd); }

std::map<std::string, std::string> Quarantine::trusted() { return trusted_.all(); }

QuarantineResult Quarantine::distrust(const std::string& sha256) {
    if (!trusted_.read()) return {false, "The list of trusted files cannot be read.", ""};
    if (trusted_.all().count(sha256) == 0) return {false, "No such file is trusted.", ""};
    if (!trusted_.remove(sha256)) return {false, "The list of trusted files cannot be written.", ""};
    return {true, "", ""};
}

}  // namespace keldra
