#include "tests/faults/fault_control.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>

namespace faults {

Renames renames = Renames::PLAIN;
Observer observer;

bool fails(Call call) {
    Control& now = control();
    if ((now.calls.load() & bit(call)) == 0) return false;
    const int number = ++now.seen;
    if (number < now.nth || number >= now.nth + now.times) return false;
    ++now.fired;
    if (now.error == DIE) ::kill(::getpid(), SIGKILL);
    errno = now.error;
    return true;
}

namespace {

bool changes(Call call, int folder, const char* name) {
    if (observer) observer(call, folder, name);
    return fails(call);
}

bool sameFolder(int a, int b) {
    struct stat one {};
    struct stat two {};
    return ::fstat(a, &one) == 0 && ::fstat(b, &two) == 0 && one.st_ino == two.st_ino;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace
}  // namespace faults

using faults::Call;

// The system's functions under their own names; NEXT calls what they stand before.
#define NEXT(function) (*faults::next<decltype(function)>(#function))

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, a line above
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return faults::fails(Call::OPEN) ? -1 : NEXT(open)(path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, a line above
    const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if ((flags & O_CREAT) != 0 && faults::observer) faults::observer(Call::OPEN, folder, path);
    return faults::fails(Call::OPEN) ? -1 : NEXT(openat)(folder, path, flags, mode);
}

int mkostemp(char* path, int flags) { return faults::fails(Call::OPEN) ? -1 : NEXT(mkostemp)(path, flags); }

long syscall(long number, ...) noexcept {
    va_list arguments;
    va_start(arguments, number);
    long values[6] = {};
    for (long& value : values) value = va_arg(arguments, long);
    va_end(arguments);
    if (number == SYS_openat2 && faults::fails(Call::OPEN)) return -1;
    return NEXT(syscall)(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

ssize_t read(int fd, void* to, size_t size) { return faults::fails(Call::READ) ? -1 : NEXT(read)(fd, to, size); }

ssize_t pread(int fd, void* to, size_t size, off_t at) {
    return faults::fails(Call::READ) ? -1 : NEXT(pread)(fd, to, size, at);
}

ssize_t write(int fd, const void* from, size_t size) {
    return faults::changes(Call::WRITE, fd, nullptr) ? -1 : NEXT(write)(fd, from, size);
}

int fsync(int fd) { return faults::changes(Call::FSYNC, fd, nullptr) ? -1 : NEXT(fsync)(fd); }

int rename(const char* from, const char* to) noexcept {
    return faults::changes(Call::RENAME, AT_FDCWD, to) ? -1 : NEXT(rename)(from, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept {
    if (faults::renames == faults::Renames::NO_FLAGS && flags != 0) return errno = EINVAL, -1;
    if (faults::renames == faults::Renames::NOT_BETWEEN_FOLDERS && !faults::sameFolder(fromFolder, toFolder)) {
        return errno = EXDEV, -1;
    }
    if (faults::observer) faults::observer(Call::RENAME, fromFolder, from);
    return faults::changes(Call::RENAME, toFolder, to) ? -1 : NEXT(renameat2)(fromFolder, from, toFolder, to, flags);
}

int linkat(int fromFolder, const char* from, int toFolder, const char* to, int flags) noexcept {
    if (faults::observer) faults::observer(Call::LINK, fromFolder, from);
    return faults::changes(Call::LINK, toFolder, to) ? -1 : NEXT(linkat)(fromFolder, from, toFolder, to, flags);
}

int unlink(const char* path) noexcept {
    return faults::changes(Call::UNLINK, AT_FDCWD, path) ? -1 : NEXT(unlink)(path);
}

int unlinkat(int folder, const char* path, int flags) noexcept {
    return faults::changes(Call::UNLINK, folder, path) ? -1 : NEXT(unlinkat)(folder, path, flags);
}

int fchmod(int fd, mode_t mode) noexcept {
    return faults::changes(Call::ATTRIBUTE, fd, nullptr) ? -1 : NEXT(fchmod)(fd, mode);
}

int fchown(int fd, uid_t owner, gid_t group) noexcept {
    return faults::changes(Call::ATTRIBUTE, fd, nullptr) ? -1 : NEXT(fchown)(fd, owner, group);
}

int fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) noexcept {
    return faults::changes(Call::ATTRIBUTE, fd, nullptr) ? -1 : NEXT(fsetxattr)(fd, name, value, size, flags);
}

DIR* opendir(const char* path) { return faults::fails(Call::LIST) ? nullptr : NEXT(opendir)(path); }

DIR* fdopendir(int folder) { return faults::fails(Call::LIST) ? nullptr : NEXT(fdopendir)(folder); }

void* mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    return faults::fails(Call::MAP) ? MAP_FAILED : NEXT(mmap)(at, size, protection, flags, fd, offset);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument) noexcept {
    return faults::fails(Call::THREAD) ? EAGAIN : NEXT(pthread_create)(thread, attributes, body, argument);
}

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    return faults::fails(Call::ACCEPT) ? -1 : NEXT(accept4)(fd, address, length, flags);
}

int accept(int fd, sockaddr* address, socklen_t* length) {
    return faults::fails(Call::ACCEPT) ? -1 : NEXT(accept)(fd, address, length);
}

}  // extern "C"
