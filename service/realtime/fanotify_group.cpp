#include "service/realtime/fanotify_group.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace keldra {

namespace {

constexpr unsigned INIT_FLAGS = FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK;
constexpr unsigned EVENT_FILE_FLAGS = O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NOATIME;

}  // namespace

bool FanotifyGroup::open() {
    const std::unique_lock lock(mutex_);
    fd_ = FileDescriptor(fanotify_init(INIT_FLAGS, EVENT_FILE_FLAGS));
    return static_cast<bool>(fd_);
}

void FanotifyGroup::close() {
    const std::unique_lock lock(mutex_);
    fd_.reset();
}

bool FanotifyGroup::mark(unsigned flags, std::uint64_t mask, int directory, const char* path) {
    const std::shared_lock lock(mutex_);
    return fanotify_mark(fd_.get(), flags, mask, directory, path) == 0;
}

void FanotifyGroup::answer(int fd, bool deny) {
    const std::shared_lock lock(mutex_);
    fanotify_response response{};
    response.fd = fd;
    response.response = deny ? FAN_DENY : FAN_ALLOW;
    // An answer that comes too late, because the process that asked was killed, fails; nobody waits for it.
    if (fd_ && ::write(fd_.get(), &response, sizeof response) < 0) return;
}

std::string FanotifyGroup::refusal() {
    const FileDescriptor group(fanotify_init(INIT_FLAGS, EVENT_FILE_FLAGS));
    if (group && fanotify_mark(group.get(), FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, "/") == 0) return {};
    const int error = errno;
    if (error == EPERM) return "The right to watch file accesses (CAP_SYS_ADMIN) is missing.";
    if (error == EINVAL || error == ENOSYS) return "This kernel has no fanotify permission events.";
    return "fanotify: " + errorText(error);
}

FileGlance glanceAt(int fd) {
    struct statx status {};
    constexpr unsigned WANTED = STATX_TYPE | STATX_SIZE | STATX_INO;
    if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, WANTED, &status) != 0) return {};
    const std::uint64_t device = std::uint64_t{status.stx_dev_major} << 32U | status.stx_dev_minor;
    const bool onDisk = status.stx_dev_major != 0;
    return {.identity = {device, status.stx_ino},
            .size = status.stx_size,
            .mayHoldSomething = S_ISREG(status.stx_mode) && (status.stx_size > 0 || !onDisk)};
}

bool FileAccess::answer(bool deny) {
    if (!open_.exchange(false)) return false;
    group_->answer(file_.get(), deny);
    return true;
}

}  // namespace keldra
