#include "webui/cgi/text_file.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <utility>

namespace {

/// For files that do not tell their size.
constexpr std::size_t SMALLEST_BLOCK = 4096;

/// What a whole file takes, and one byte more, so that its end is met without asking for more room.
std::size_t roomFor(std::FILE& file) {
    struct stat status {};
    const bool known = ::fstat(::fileno(&file), &status) == 0 && status.st_size > 0;
    return known ? static_cast<std::size_t>(status.st_size) + 1 : SMALLEST_BLOCK;
}

}  // namespace

bool readTextFile(const std::string& path, std::string& text) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (!file) return false;
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    std::string content(roomFor(*file), '\0');
    std::size_t length = 0;
    while (const std::size_t got = std::fread(content.data() + length, 1, content.size() - length, file.get())) {
        length += got;
        if (length == content.size()) content.resize(2 * length);
    }
    content.resize(length);
    text = std::move(content);
    return true;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }
