#include "service/realtime/fanotify_group.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace keldra {

namespace {

/// What does not fit the kernel's queue would be let through unseen, so it has no limit; the readers keep it short.
constexpr unsigned INIT_FLAGS = FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE;
constexpr unsigned EVENT_FILE_FLAGS = O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NOATIME;

}  // namespace

bool FanotifyGroup::open() {
    FileDescriptor fd(fanotify_init(INIT_FLAGS, EVENT_FILE_FLAGS));
    if (!fd) return false;
    const std::lock_guard lock(mutex_);
    fd_ = std::make_shared<const FileDescriptor>(std::move(fd));
    return true;
}

void FanotifyGroup::close() {
    std::shared_ptr<const FileDescriptor> closing;  // goes after the lock
    const std::lock_guard lock(mutex_);
    closing.swap(fd_);
}

std::shared_ptr<const FileDescriptor> FanotifyGroup::descriptor() const {
    const std::lock_guard lock(mutex_);
    return fd_;
}

bool FanotifyGroup::mark(unsigned flags, std::uint64_t mask, int directory, const char* path) const {
    const auto fd = descriptor();
    if (!fd) errno = EBADF;
    return fd && fanotify_mark(fd->get(), flags, mask, directory, path) == 0;
}

void FanotifyGroup::answer(int fd, bool deny) const {
    fanotify_response response{};
    response.fd = fd;
    response.response = deny ? FAN_DENY : FAN_ALLOW;
    // An answer that comes too late, because the process that asked was killed, fails; nobody waits for it.
    const auto group = descriptor();
    if (group && ::write(group->get(), &response, sizeof response) < 0) return;
}

std::string FanotifyGroup::refusal() {
    const FileDescriptor group(fanotify_init(INIT_FLAGS, EVENT_FILE_FLAGS));
    if (group && fanotify_mark(group.get(), FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, "/") == 0) return {};
    const int error = errno;
    if (error == EPERM) return "The system does not allow Keldra to watch files.";
    if (error == EINVAL || error == ENOSYS)
        return "The kernel of this system cannot hold files back until they are scanned.";
    return "The system does not let files be watched: " + errorText(error);
}

}  // namespace keldra
