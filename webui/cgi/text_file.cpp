#include "webui/cgi/text_file.h"

#include "norv/file_descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

/// For files that do not tell their size.
constexpr std::size_t SMALLEST_BLOCK = 4096;

/// What a whole file takes, and one byte more, so that its end is met without asking for more room.
std::size_t roomFor(int file) {
    struct stat status {};
    const bool known = ::fstat(file, &status) == 0 && status.st_size > 0;
    return known ? static_cast<std::size_t>(status.st_size) + 1 : SMALLEST_BLOCK;
}

/// Bytes read; 0 at the end and where reading fails.
std::size_t readSome(int file, char* bytes, std::size_t room) {
    ssize_t got = ::read(file, bytes, room);
    while (got < 0 && errno == EINTR) got = ::read(file, bytes, room);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

}  // namespace

bool TextFile::read(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return false;
    std::size_t room = roomFor(file.get());
    auto bytes = std::make_unique_for_overwrite<char[]>(room);
    std::size_t size = 0;
    while (const std::size_t got = readSome(file.get(), bytes.get() + size, room - size)) {
        size += got;
        if (size < room) continue;
        room *= 2;
        auto larger = std::make_unique_for_overwrite<char[]>(room);
        std::memcpy(larger.get(), bytes.get(), size);
        bytes = std::move(larger);
    }
    bytes_ = std::move(bytes);
    size_ = size;
    return true;
}

bool readTextFile(const std::string& path, std::string& text) {
    TextFile file;
    if (!file.read(path)) return false;
    text = file.text();
    return true;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }
