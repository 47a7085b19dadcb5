#include "service/engine/unpack_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace keldra {

namespace {

constexpr int FLAGS = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
/// What the library makes is nested by a few folders only; whatever is deeper is no work of its.
constexpr int DEEPEST = 32;
constexpr blkcnt_t BLOCK = 512;
/// Seconds after which any further change of a folder gives it another time.
constexpr time_t SETTLED = 1;

using Entries = std::unique_ptr<DIR, int (*)(DIR*)>;

Entries entriesOf(int folder) {
    FileDescriptor own(::openat(folder, ".", FLAGS));
    Entries entries(own ? ::fdopendir(own.get()) : nullptr, ::closedir);
    if (entries) own.release();
    return entries;
}

bool isOther(const dirent& entry) {
    return std::strcmp(&entry.d_name[0], ".") != 0 && std::strcmp(&entry.d_name[0], "..") != 0;
}

/// Whether there was nothing.
bool removeAll(DIR* entries, int depth) {
    const int folder = ::dirfd(entries);
    bool nothing = true;
    while (const dirent* entry = ::readdir(entries)) {
        const char* const name = &entry->d_name[0];
        if (!isOther(*entry)) continue;
        nothing = false;
        if (::unlinkat(folder, name, 0) == 0 || depth == 0) continue;
        {
            const FileDescriptor below(::openat(folder, name, FLAGS));
            if (const Entries inner = entriesOf(below.get())) removeAll(inner.get(), depth - 1);
        }
        ::unlinkat(folder, name, AT_REMOVEDIR);
    }
    return nothing;
}

uint64_t sizeBelow(int folder, int depth) {
    const Entries entries = entriesOf(folder);
    uint64_t bytes = 0;
    while (const dirent* entry = entries ? ::readdir(entries.get()) : nullptr) {
        struct stat status {};
        if (!isOther(*entry) || ::fstatat(folder, &entry->d_name[0], &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
        bytes += static_cast<uint64_t>(status.st_blocks * BLOCK);
        if (!S_ISDIR(status.st_mode) || depth == 0) continue;
        const FileDescriptor below(::openat(folder, &entry->d_name[0], FLAGS));
        if (below) bytes += sizeBelow(below.get(), depth - 1);
    }
    return bytes;
}

}  // namespace

UnpackFolder::UnpackFolder(const std::string& parent, const std::string& name, uid_t user, gid_t group)
    : path_(parent + "/" + name) {
    if (!makeFolder(parent, 0700) || (::mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST)) return;
    FileDescriptor made(::open(path_.c_str(), FLAGS));
    if (!made || (user != ::geteuid() && ::fchown(made.get(), user, group) != 0)) return;
    entries_ = entriesOf(made.get());
    if (entries_) folder_ = std::move(made);
}

UnpackFolder::~UnpackFolder() {
    if (!folder_) return;
    empty();
    ::rmdir(path_.c_str());
}

bool UnpackFolder::usable() const {
    struct stat status {};
    return folder_ && ::fstat(folder_.get(), &status) == 0 && status.st_nlink > 0;
}

timespec UnpackFolder::lastChange() const {
    struct stat status {};
    return ::fstat(folder_.get(), &status) == 0 ? status.st_ctim : timespec{};
}

/// Most files leave nothing, and to read an empty folder costs more than to see that nothing changed it.
void UnpackFolder::empty() {
    const timespec change = lastChange();
    const bool settled = change.tv_sec != 0 && ::time(nullptr) - change.tv_sec > SETTLED;
    if (settled && change.tv_sec == emptySince_.tv_sec && change.tv_nsec == emptySince_.tv_nsec) return;
    ::rewinddir(entries_.get());
    const bool nothing = removeAll(entries_.get(), DEEPEST);
    emptySince_ = settled && nothing ? change : timespec{};
}

uint64_t UnpackFolder::size() const { return folder_ ? sizeBelow(folder_.get(), DEEPEST) : 0; }

}  // namespace keldra
