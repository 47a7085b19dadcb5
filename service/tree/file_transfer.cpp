#include "service/tree/file_transfer.h"

#include "norv/crypto.h"
#include "service/base/sha256.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t BLOCK = std::size_t{256} * 1024;

/// Reads the whole file, handing each block to `use`, which returns whether to go on.
template <typename Use>
bool readBlocks(int fd, std::uint64_t most, const Use& use) {
    std::vector<char> block(BLOCK);
    off_t offset = 0;
    while (true) {
        const ssize_t length = ::pread(fd, block.data(), block.size(), offset);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return length == 0;
        if (static_cast<std::uint64_t>(offset + length) > most) {
            errno = EFBIG;
            return false;
        }
        if (!use(std::string_view(block.data(), static_cast<std::size_t>(length)))) return false;
        offset += length;
    }
}

bool isFile(int folder, const std::string& name, const struct stat& wanted) {
    struct stat found {};
    return ::fstatat(folder, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_dev == wanted.st_dev &&
           found.st_ino == wanted.st_ino;
}

}  // namespace

std::string sha256Of(int fd, std::uint64_t most) {
    Sha256 hash;
    const bool read = readBlocks(fd, most, [&hash](std::string_view bytes) {
        hash.add(bytes);
        return true;
    });
    return read ? hash.hex() : std::string();
}

std::string copyContent(int from, int to, std::uint64_t most) {
    Sha256 hash;
    const bool copied = readBlocks(from, most, [&hash, to](std::string_view bytes) {
        hash.add(bytes);
        return writeAll(to, bytes);
    });
    return copied && ::fsync(to) == 0 ? hash.hex() : std::string();
}

bool syncFolder(int folder) {
    const FileDescriptor opened(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return opened && ::fsync(opened.get()) == 0;
}

bool renameNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
    if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system that does not know the flag: the new name is made as a link, which never replaces anything.
    if (::linkat(fromFolder, from.c_str(), toFolder, to.c_str(), 0) != 0) return false;
    if (syncFolder(toFolder) && ::unlinkat(fromFolder, from.c_str(), 0) == 0) return true;
    const int error = errno;
    ::unlinkat(toFolder, to.c_str(), 0);
    errno = error;
    return false;
}

bool renameExactly(const ScannedFile& file, int toFolder, const std::string& to) {
    if (!isFile(file.folder->get(), file.name, file.status)) {
        errno = ENOENT;
        return false;
    }
    if (!renameNoReplace(file.folder->get(), file.name, toFolder, to)) return false;
    if (isFile(toFolder, to, file.status)) return true;
    // Somebody put another file under the name in between.
    renameNoReplace(toFolder, to, file.folder->get(), file.name);
    errno = ENOENT;
    return false;
}

bool removeExactly(const ScannedFile& file, const std::string& passing) {
    if (!renameExactly(file, file.folder->get(), passing)) return false;
    if (::unlinkat(file.folder->get(), passing.c_str(), 0) == 0) return true;
    const int error = errno;
    renameNoReplace(file.folder->get(), passing, file.folder->get(), file.name);
    errno = error;
    return false;
}

std::string randomName() {
    std::vector<unsigned char> bytes;
    return getRandomBytes(16, bytes) ? bin2hex(bytes) : std::string();
}

}  // namespace keldra
