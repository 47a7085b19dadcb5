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
/// lines or are not seen.
constexpr std::array<Range, 6> UNSEEN{{{"\u0080", "\u009F"},
                                       {"\u061C", "\u061C"},
                                       {"\u200B", "\u200F"},
                                       {"\u2028", "\u202E"},  // NOLINT(misc-misleading-bidirectional)
                                       {"\u2060", "\u2069"},
                                       {"\uFEFF", "\uFEFF"}}};

/// Whether a sequence of UTF-8 is obeyed or misleads instead of being seen.
bool isUnseen(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (sequence.size() == 1) return first < 0x20 || first == 0x7f;
    return std::any_of(UNSEEN.begin(), UNSEEN.end(), [sequence](const Range& range) {
        return sequence.size() == range.first.size() && sequence >= range.first && sequence <= range.last;
    });
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isUnseen(sequence)) {
            for (const char c : sequence) appendEscaped(out, c);
        } else {
            out += sequence;
        }
        text.remove_prefix(sequence.size());
    }
    return out;
}
