#include "norv/printable.h"

#include "utf8.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

void appendEscaped(std::string& out, char c) {
    std::array<char, 5> hex{};
    switch (c) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    std::snprintf(hex.data(), hex.size(), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    out += hex.data();
}

struct Range {
    std::string_view first;
    std::string_view last;
};

/// Beyond ASCII: control characters, which some terminals obey, and signs that turn the order of letters round, end
/// lines, or are not seen or only as a blank. Of equal length in UTF-8 each.
constexpr std::array<Range, 19> UNSEEN{{{"\u0080", "\u009F"},
                                        {"\u00AD", "\u00AD"},
                                        {"\u034F", "\u034F"},
                                        {"\u061C", "\u061C"},
                                        {"\u115F", "\u1160"},
                                        {"\u17B4", "\u17B5"},
                                        {"\u180B", "\u180F"},
                                        {"\u200B", "\u200F"},
                                        {"\u2028", "\u202E"},  // NOLINT(misc-misleading-bidirectional)
                                        {"\u2060", "\u206F"},
                                        {"\u2800", "\u2800"},
                                        {"\u3164", "\u3164"},
                                        {"\uFE00", "\uFE0F"},
                                        {"\uFEFF", "\uFEFF"},
                                        {"\uFFA0", "\uFFA0"},
                                        {"\uFFF0", "\uFFFB"},
                                        {"\U0001BCA0", "\U0001BCA3"},
                                        {"\U0001D173", "\U0001D17A"},
                                        {"\U000E0000", "\U000E0FFF"}}};

/// Whether a sequence of UTF-8 is obeyed or misleads instead of being seen.
bool isUnseen(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (sequence.size() == 1) return first < 0x20 || first == 0x7f;
    return std::any_of(UNSEEN.begin(), UNSEEN.end(), [sequence](const Range& range) {
        return sequence.size() == range.first.size() && sequence >= range.first && sequence <= range.last;
    });
}

}  // namespace

std::string withPictures(std::string_view text, std::string (*picture)(std::string_view sign)) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isUnseen(sequence))
            out += picture(sequence);
        else
            out += sequence;
        text.remove_prefix(sequence.size());
    }
    return out;
}

std::string printable(std::string_view text) {
    return withPictures(text, [](std::string_view sign) {
        std::string escaped;
        for (const char c : sign) appendEscaped(escaped, c);
        return escaped;
    });
}
