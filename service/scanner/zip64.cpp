#include "service/scanner/zip64.h"

#include <cstddef>
#include <cstdint>

namespace keldra {

namespace {

// Places and lengths as in PKWARE's APPNOTE.TXT, sections 4.3.7 and 4.3.12.
constexpr std::string_view MARK = "PK";
constexpr std::string_view FILE_MARK = "PK\3\4";
constexpr std::string_view ENTRY_MARK = "PK\1\2";
constexpr std::size_t FILE_LENGTH = 30;
constexpr std::size_t ENTRY_LENGTH = 46;
constexpr std::uint64_t ELSEWHERE = 0xFFFFFFFF;
constexpr std::uint64_t SIZES_FOLLOW = 8;

/// A little-endian number, which must lie in the text.
std::uint64_t number(std::string_view text, std::size_t at, std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = bytes; i-- > 0;) value = value << 8U | static_cast<unsigned char>(text[at + i]);
    return value;
}

bool isElsewhere(std::string_view text, std::size_t at) { return number(text, at, 4) == ELSEWHERE; }

/// Of a file whose sizes follow it the library takes them from the directory.
bool isLargeFile(std::string_view text) {
    return text.size() >= FILE_LENGTH && text.starts_with(FILE_MARK) && (number(text, 6, 2) & SIZES_FOLLOW) == 0 &&
           (isElsewhere(text, 18) || isElsewhere(text, 22));
}

bool isLargeEntry(std::string_view text) {
    return text.size() >= ENTRY_LENGTH && text.starts_with(ENTRY_MARK) &&
           (isElsewhere(text, 20) || isElsewhere(text, 24) || isElsewhere(text, 42));
}

}  // namespace

/// All of it is looked through, since where the directory is said to lie may be a lie.
bool hasZip64Files(std::string_view content) {
    for (std::size_t at = content.find(MARK); at != std::string_view::npos; at = content.find(MARK, at + MARK.size()))
        if (isLargeFile(content.substr(at)) || isLargeEntry(content.substr(at))) return true;
    return false;
}

}  // namespace keldra
