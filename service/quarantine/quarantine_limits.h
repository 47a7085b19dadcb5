#pragma once

#include "service/quarantine/quarantine_item.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

class NORVConfig;

namespace keldra {

/// How much the quarantine may hold. 0 is no limit, but for `announced`.
struct QuarantineLimits {
    uint64_t bytes = uint64_t{10} << 30U;    ///< of all contents
    uint64_t files = 100000;                 ///< items
    int64_t age = int64_t{180} * 86400;      ///< seconds after which an item is to go
    int64_t announced = int64_t{7} * 86400;  ///< seconds for which that is announced before it goes
    /// Bytes that must be free on the disk, and stay so when a file is copied; nothing: 1 GiB, on small disks a tenth.
    std::optional<uint64_t> keepFree;

    bool operator==(const QuarantineLimits&) const = default;
};

/// The limits of the configuration's group "Quarantine": MaxMegabytes, MaxFiles, MaxDays, AnnounceDays (at least 1) and
/// KeepFreeMegabytes.
QuarantineLimits quarantineLimits(const NORVConfig& config);

/// Bytes that are to stay free on a disk of this size, or on the one of a folder.
uint64_t roomToKeep(const QuarantineLimits& limits, uint64_t diskSize);
uint64_t roomToKeep(const QuarantineLimits& limits, const std::string& folder);

/// Whether so many of a limit are too many for there to be room for long. A limit of 0 is none.
bool isFilling(uint64_t used, uint64_t limit);

/// The items that are to go: those beyond the age, and when nine tenths of the room are taken the oldest, until eight
/// tenths are. `now`: seconds since the epoch; an item from the future has no age.
std::set<std::string> itemsToGo(std::vector<QuarantineItem> items, const QuarantineLimits& limits, int64_t now);

/// Which items are to go, and for how long that has been announced: seconds in which the service ran, so that no wrong
/// clock shortens them. Kept in a file.
class RemovalNotice {
public:
    explicit RemovalNotice(std::string file) : file_(std::move(file)) {}

    /// A file that is missing or damaged means that nothing was announced.
    void read();
    /// Takes the items that are to go now; to those that were before `seconds` are added. The items whose announcement
    /// has lasted long enough.
    std::vector<std::string> update(const std::set<std::string>& toGo, int64_t seconds, int64_t enough);
    void forget(const std::string& id) { announced_.erase(id); }
    /// False, with a log line, when that fails.
    bool write() const;

    const std::map<std::string, int64_t>& announced() const { return announced_; }

private:
    std::string file_;
    std::map<std::string, int64_t> announced_;  ///< seconds by id
};

}  // namespace keldra
