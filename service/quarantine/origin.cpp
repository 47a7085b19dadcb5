#include "service/quarantine/origin.h"

#include "service/tree/file_transfer.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace keldra {

namespace {

/// The kernel takes paths of less than 4096 bytes at a time; a name has 255 at most.
constexpr std::size_t LONGEST_PIECE = 3800;

FileDescriptor openPiece(int from, const std::string& piece, int flags) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags) | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, from, piece.c_str(), &how, sizeof how)));
}

/// A folder of any depth, none of whose parts is a symbolic link.
FileDescriptor openFolder(std::string_view path) {
    FileDescriptor at;
    while (path.size() > LONGEST_PIECE) {
        const std::size_t slash = path.rfind('/', LONGEST_PIECE);
        if (slash == std::string_view::npos || slash == 0) {
            errno = ENAMETOOLONG;
            return {};
        }
        FileDescriptor next = openPiece(at ? at.get() : AT_FDCWD, std::string(path.substr(0, slash)), O_PATH);
        if (!next) return next;
        at = std::move(next);
        path.remove_prefix(slash + 1);
    }
    return openPiece(at ? at.get() : AT_FDCWD, std::string(path), O_RDONLY);
}

bool isMarked(int fd, const char* name, uint64_t marks) {
    struct statx status {};
    return fd >= 0 && ::statx(fd, name, AT_EMPTY_PATH, 0, &status) == 0 && (status.stx_attributes & marks) != 0;
}

}  // namespace

Origin originOf(const std::string& path) {
    Origin origin;
    const std::size_t slash = path.rfind('/');
    if (!path.starts_with('/') || slash + 1 == path.size()) {
        origin.error = EINVAL;
        return origin;
    }
    origin.name = path.substr(slash + 1);
    origin.folder = openFolder(std::string_view(path).substr(0, slash == 0 ? 1 : slash));
    if (!origin.folder) origin.error = errno;
    return origin;
}

bool statusOf(int folder, const std::string& name, struct stat& status) {
    return ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool hasInode(int folder, const std::string& name, uint64_t inode) {
    struct stat status {};
    return statusOf(folder, name, status) && S_ISREG(status.st_mode) && status.st_ino == inode;
}

FileDescriptor openExisting(int folder, const std::string& name) {
    return FileDescriptor(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

FileDescriptor createNew(int folder, const std::string& name) {
    return FileDescriptor(::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

Content contentOf(int folder, const std::string& name, const std::string& sha256, uint64_t size) {
    const FileDescriptor file = openExisting(folder, name);
    const std::string found = file ? sha256Of(file.get(), size) : std::string();
    if (found.empty()) return file && errno == EFBIG ? Content::OTHER : Content::UNKNOWN;
    return found == sha256 ? Content::SAME : Content::OTHER;
}

std::string explainChange(int error, int file, int folder) {
    if (error == EPERM || error == EACCES) {
        if (isMarked(file, "", STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) return "the file is marked immutable";
        if (isMarked(folder, "", STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) return "its folder is marked immutable";
    }
    return errorText(error);
}

}  // namespace keldra
