#include "service/tree/scanned_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace keldra {

namespace {

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

FileDescriptor openOnce(int folder, const char* name) {
    constexpr int FLAGS = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileDescriptor fd(::openat(folder, name, FLAGS | O_NOATIME));
    if (!fd && errno == EPERM) fd = FileDescriptor(::openat(folder, name, FLAGS));
    return fd;
}

/// A file that another program holds a lease on is refused at first; the refusal asks that program to let go.
FileDescriptor openPatiently(int folder, const char* name) {
    constexpr int TRIES = 20;
    constexpr auto PAUSE = std::chrono::milliseconds(50);
    for (int i = 1;; ++i) {
        FileDescriptor fd = openOnce(folder, name);
        if (fd || errno != EWOULDBLOCK || i == TRIES) return fd;
        std::this_thread::sleep_for(PAUSE);
    }
}

/// The kernel tells no path that is longer than a page: of such a one only the beginning is looked up. A walk follows
/// no links, so those are at the beginning if anywhere.
std::string realLongPath(const std::string& path) {
    constexpr std::size_t BEGINNING = 2000;
    const std::size_t slash = path.size() > BEGINNING ? path.rfind('/', BEGINNING) : 0;
    if (slash == 0 || slash == std::string::npos) return path;
    const FileDescriptor folder(::open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const std::string place = folder ? descriptorPath(folder.get()) : std::string();
    return place.empty() ? path : place + path.substr(slash);
}

}  // namespace

bool ScannedFile::stillThere() const {
    struct stat now {};
    return ::fstatat(folder->get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && sameFile(now, status);
}

std::string ScannedFile::realPath() const {
    std::string place = descriptorPath(folder->get());
    if (place.empty()) return realLongPath(path);
    if (place.back() != '/') place += '/';
    return place + name;
}

std::optional<ScannedFile> openInFolder(std::shared_ptr<const FileDescriptor> folder, const std::string& name,
                                        const std::string& path) {
    ScannedFile found;
    found.file = openPatiently(folder->get(), name.c_str());
    if (!found.file || ::fstat(found.file.get(), &found.status) != 0) return std::nullopt;
    if (!S_ISREG(found.status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    found.folder = std::move(folder);
    found.name = name;
    found.path = path;
    return found;
}

std::optional<ScannedFile> scannedFileAt(int fd, const std::string& path) {
    ScannedFile found;
    if (::fstat(fd, &found.status) != 0 || !S_ISREG(found.status.st_mode)) return std::nullopt;
    found.path = path;
    const std::size_t slash = path.rfind('/');
    if (!path.starts_with('/')) return std::nullopt;
    found.name = path.substr(slash + 1);
    const std::string parent = path.substr(0, slash + 1);
    // O_PATH: a folder whose content is not listed needs no reading, and raises no event for those who watch it.
    auto folder = std::make_shared<FileDescriptor>(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    found.file = FileDescriptor(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
    if (!*folder || !found.file) return std::nullopt;
    found.folder = std::move(folder);
    if (!found.stillThere()) return std::nullopt;
    return found;
}

}  // namespace keldra
