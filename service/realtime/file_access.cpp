#include "service/realtime/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>

namespace keldra {

FileGlance glanceAt(int fd) {
    struct statx status {};
    constexpr unsigned WANTED = STATX_TYPE | STATX_SIZE | STATX_INO | STATX_UID;
    if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, WANTED, &status) != 0) return {};
    const std::uint64_t device = std::uint64_t{status.stx_dev_major} << 32U | status.stx_dev_minor;
    const bool onDisk = status.stx_dev_major != 0;
    return {.identity = {device, status.stx_ino},
            .size = status.stx_size,
            .owner = status.stx_uid,
            .mayHoldSomething = S_ISREG(status.stx_mode) && (status.stx_size > 0 || !onDisk)};
}

uid_t userOf(pid_t process, uid_t owner) {
    struct stat status {};
    const std::string folder = "/proc/" + std::to_string(process);
    return ::stat(folder.c_str(), &status) == 0 && status.st_uid != 0 ? status.st_uid : owner;
}

bool WaitingOpener::answer(bool deny) {
    const std::lock_guard lock(mutex_);
    if (!open_) return false;
    group_->answer(fd_, deny);
    open_ = false;
    return true;
}

void WaitingOpeners::add(std::shared_ptr<WaitingOpener> opener) {
    const std::lock_guard lock(mutex_);
    if (all_.size() >= tidyAt_) {
        std::erase_if(all_, [](const auto& each) { return !each->waiting(); });
        tidyAt_ = std::max<std::size_t>(1024, all_.size() * 2);
    }
    all_.push_back(std::move(opener));
}

std::vector<std::shared_ptr<WaitingOpener>> WaitingOpeners::takeOverdue(SteadyTime now) {
    const std::lock_guard lock(mutex_);
    const auto due = std::find_if(all_.begin(), all_.end(), [now](const auto& each) { return each->deadline() > now; });
    std::vector<std::shared_ptr<WaitingOpener>> overdue;
    std::copy_if(all_.begin(), due, std::back_inserter(overdue), [](const auto& each) { return each->waiting(); });
    all_.erase(all_.begin(), due);
    return overdue;
}

}  // namespace keldra
