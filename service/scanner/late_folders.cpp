#include "service/scanner/late_folders.h"

#include "service/engine/scanner_wire.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

// The C library's functions under their own names: the engine's library calls these here. One thread.

namespace keldra {

namespace {

bool late = false;
std::array<char, 512> promised{};  ///< the folder that the library takes for made; empty: none

const std::string& room() {
    static const std::string path = "/proc/self/fd/" + std::to_string(wire::TEMPORARY) + "/";
    return path;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool isPromised(std::string_view path) { return promised[0] != '\0' && path == promised.data(); }

/// A folder of the library's own in the room for what is unpacked.
bool canBePromised(std::string_view path) {
    return late && promised[0] == '\0' && path.starts_with(room()) && path.size() > room().size() &&
           path.find('/', room().size()) == std::string_view::npos && path.size() < promised.size();
}

int makeNow(const char* path, mode_t mode) {
    static auto* const real = next<int(const char*, mode_t)>("mkdir");
    return real(path, mode);
}

/// Something is to be put there. Should it fail, so does what comes next.
void keepPromise(std::string_view path) {
    const std::size_t length = std::strlen(promised.data());
    if (length == 0 || path.size() <= length || path[length] != '/' || !path.starts_with(promised.data())) return;
    makeNow(promised.data(), S_IRWXU);
    promised[0] = '\0';
}

}  // namespace

void makeFoldersLate() {
    late = true;
    promised[0] = '\0';
}

}  // namespace keldra

extern "C" {

int mkdir(const char* path, mode_t mode) noexcept {
    if (keldra::canBePromised(path)) {
        std::strncpy(keldra::promised.data(), path, keldra::promised.size() - 1);
        return 0;
    }
    keldra::keepPromise(path);
    return keldra::makeNow(path, mode);
}

int chmod(const char* path, mode_t mode) noexcept {
    static auto* const real = keldra::next<int(const char*, mode_t)>("chmod");
    return keldra::isPromised(path) ? 0 : real(path, mode);
}

/// The library looks into its folder before it removes it.
DIR* opendir(const char* path) {
    static auto* const real = keldra::next<DIR*(const char*)>("opendir");
    if (!keldra::isPromised(path)) return real(path);
    errno = ENOENT;
    return nullptr;
}

int rmdir(const char* path) noexcept {
    static auto* const real = keldra::next<int(const char*)>("rmdir");
    if (!keldra::isPromised(path)) return real(path);
    keldra::promised[0] = '\0';
    return 0;
}

int open64(const char* path, int flags, ...) {
    static auto* const real = keldra::next<int(const char*, int, ...)>("open64");
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    keldra::keepPromise(path);
    return real(path, flags, mode);
}

int openat64(int folder, const char* path, int flags, ...) {
    static auto* const real = keldra::next<int(int, const char*, int, ...)>("openat64");
    va_list more;
    va_start(more, flags);
    const mode_t mode = va_arg(more, mode_t);
    va_end(more);
    keldra::keepPromise(path);
    return real(folder, path, flags, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    static auto* const real = keldra::next<FILE*(const char*, const char*)>("fopen64");
    keldra::keepPromise(path);
    return real(path, mode);
}

int rename(const char* from, const char* to) noexcept {
    static auto* const real = keldra::next<int(const char*, const char*)>("rename");
    keldra::keepPromise(to);
    return real(from, to);
}

int symlink(const char* target, const char* path) noexcept {
    static auto* const real = keldra::next<int(const char*, const char*)>("symlink");
    keldra::keepPromise(path);
    return real(target, path);
}
}
