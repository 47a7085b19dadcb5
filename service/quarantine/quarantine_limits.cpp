#include "service/quarantine/quarantine_limits.h"

#include "norv/log.h"
#include "norv/norv_config.h"
#include "service/base/files.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <sstream>

namespace keldra {

namespace {

constexpr int64_t DAY = 86400;
constexpr std::size_t LARGEST_NOTICE = std::size_t{32} << 20U;
constexpr uint64_t USUAL_ROOM = uint64_t{1} << 30U;

uint64_t numberOr(const NORVConfig& config, const char* name, uint64_t fallback) {
    return configValueOr(config, "Quarantine", name, static_cast<uint32_t>(fallback));
}

bool isRoomy(uint64_t used, uint64_t limit) { return limit == 0 || used <= limit / 10 * 8; }

}  // namespace

QuarantineLimits quarantineLimits(const NORVConfig& config) {
    const QuarantineLimits usual;
    QuarantineLimits limits;
    limits.bytes = numberOr(config, "MaxMegabytes", usual.bytes >> 20U) << 20U;
    limits.files = numberOr(config, "MaxFiles", usual.files);
    limits.age = static_cast<int64_t>(numberOr(config, "MaxDays", static_cast<uint64_t>(usual.age / DAY))) * DAY;
    const auto days = numberOr(config, "AnnounceDays", static_cast<uint64_t>(usual.announced / DAY));
    limits.announced = static_cast<int64_t>(std::max<uint64_t>(days, 1)) * DAY;
    const auto free = configValueOr(config, "Quarantine", "KeepFreeMegabytes", int32_t{-1});
    if (free >= 0) limits.keepFree = static_cast<uint64_t>(free) << 20U;
    return limits;
}

bool isFilling(uint64_t used, uint64_t limit) { return limit != 0 && used > limit / 10 * 9; }

uint64_t roomToKeep(const QuarantineLimits& limits, uint64_t diskSize) {
    return limits.keepFree.value_or(std::min(USUAL_ROOM, diskSize / 10));
}

uint64_t roomToKeep(const QuarantineLimits& limits, const std::string& folder) {
    struct statvfs disk {};
    const bool known = ::statvfs(folder.c_str(), &disk) == 0;
    return roomToKeep(limits, known ? uint64_t{disk.f_blocks} * disk.f_frsize : UINT64_MAX);
}

std::set<std::string> itemsToGo(std::vector<QuarantineItem> items, const QuarantineLimits& limits, int64_t now) {
    std::sort(items.begin(), items.end(),
              [](const QuarantineItem& a, const QuarantineItem& b) { return a.when < b.when; });
    uint64_t bytes = 0;
    uint64_t files = items.size();
    for (const QuarantineItem& item : items) bytes += item.size;
    const bool filling = isFilling(bytes, limits.bytes) || isFilling(files, limits.files);
    std::set<std::string> toGo;
    for (const QuarantineItem& item : items) {
        const bool old = limits.age != 0 && item.when < now - limits.age;
        const bool crowded = filling && !(isRoomy(bytes, limits.bytes) && isRoomy(files, limits.files));
        if (!old && !crowded) break;
        toGo.insert(item.id);
        bytes -= item.size;
        --files;
    }
    return toGo;
}

void RemovalNotice::read() {
    announced_.clear();
    int error = 0;
    std::istringstream lines(readFile(file_, LARGEST_NOTICE, error).value_or(""));
    std::string id;
    for (int64_t seconds = 0; lines >> id >> seconds;) announced_[id] = std::max<int64_t>(seconds, 0);
}

std::vector<std::string> RemovalNotice::update(const std::set<std::string>& toGo, int64_t seconds, int64_t enough) {
    std::map<std::string, int64_t> announced;
    std::vector<std::string> over;
    for (const std::string& id : toGo) {
        const auto before = announced_.find(id);
        const int64_t lasted = before == announced_.end() ? 0 : before->second + seconds;
        announced[id] = lasted;
        if (lasted >= enough) over.push_back(id);
    }
    announced_ = std::move(announced);
    return over;
}

bool RemovalNotice::write() const {
    std::string text;
    for (const auto& [id, seconds] : announced_) text += id + " " + std::to_string(seconds) + "\n";
    const WriteResult written = writeFileAtomically(file_, text, 0600);
    if (!written) {
        NORV_LOG(NORV_LOG_ERROR, "cannot write %s: %s", file_.c_str(), errorText(written.error).c_str());
    }
    return written.written;
}

}  // namespace keldra
