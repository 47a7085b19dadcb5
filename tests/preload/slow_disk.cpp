// Preloaded into a program: a disk that takes its time to sync, and folders whose file system does not answer.

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

long openAt(int folder, const char* path, int flags, mode_t mode) {
    if (std::strstr(path, "hangs")) std::this_thread::sleep_for(std::chrono::seconds(60));
    return ::syscall(SYS_openat, folder, path, flags, mode);
}

void takeTime() {
    const char* const time = std::getenv("SLOW_DISK_MILLISECONDS");
    std::this_thread::sleep_for(std::chrono::milliseconds(time ? std::atoi(time) : 0));
}

}  // namespace

extern "C" {

int fsync(int fd) {
    takeTime();
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

int fdatasync(int fd) {
    takeTime();
    return static_cast<int>(::syscall(SYS_fdatasync, fd));
}

int open(const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    return static_cast<int>(openAt(AT_FDCWD, path, flags, mode));
}

int openat(int folder, const char* path, int flags, ...) {
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    return static_cast<int>(openAt(folder, path, flags, mode));
}
}
