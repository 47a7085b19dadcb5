#include "norv/printable.h"

#include "utf8.h"

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

/// Control characters of one byte, and those of two (U+0080 to U+009F), which some terminals obey.
bool isControl(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (sequence.size() == 1) return first < 0x20 || first == 0x7f;
    return first == 0xc2 && static_cast<unsigned char>(sequence[1]) < 0xa0;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isControl(sequence)) {
            for (const char c : sequence) appendEscaped(out, c);
        } else {
            out += sequence;
        }
        text.remove_prefix(sequence.size());
    }
    return out;
}
