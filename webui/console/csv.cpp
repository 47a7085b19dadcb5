#include "webui/console/csv.h"

#include "norv/time_text.h"

#include <libintl.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace {

/// Signs that are not seen, end lines or turn the order of letters round, as ranges of code points.
struct Range {
    unsigned first;
    unsigned last;
};
constexpr std::array UNSEEN{Range{0x00, 0x1F},     Range{0x7F, 0x9F},     Range{0x61C, 0x61C},  Range{0x200B, 0x200F},
                            Range{0x2028, 0x202E}, Range{0x2060, 0x2069}, Range{0xFEFF, 0xFEFF}};

/// The code point that begins at the front of a text, and its length in bytes; a byte that begins none is one by
/// itself. None beyond U+FFFF matters here.
struct CodePoint {
    unsigned value;
    std::size_t length;
};

CodePoint firstOf(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(at < text.size() ? text[at] : 0); };
    const auto follows = [&byte](std::size_t at) { return (byte(at) & 0xC0U) == 0x80U; };
    if (byte(0) < 0x80) return {byte(0), 1};
    if ((byte(0) & 0xE0U) == 0xC0U && follows(1)) return {(byte(0) & 0x1FU) << 6U | (byte(1) & 0x3FU), 2};
    if ((byte(0) & 0xF0U) == 0xE0U && follows(1) && follows(2))
        return {(byte(0) & 0x0FU) << 12U | (byte(1) & 0x3FU) << 6U | (byte(2) & 0x3FU), 3};
    return {0xFFFF, 1};
}

std::string picture(unsigned code) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "\u27E8U+%04X\u27E9", code);
    return text.data();
}

/// The text with everything in it to be seen: a name could pose as another with what is not.
std::string visible(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const CodePoint sign = firstOf(text);
        const bool unseen = std::any_of(UNSEEN.begin(), UNSEEN.end(), [&sign](const Range& range) {
            return sign.value >= range.first && sign.value <= range.last;
        });
        result += unseen ? picture(sign.value) : std::string(text.substr(0, sign.length));
        text.remove_prefix(sign.length);
    }
    return result;
}

constexpr std::string_view FORMULA_STARTS = "=+-@";
constexpr std::string_view WANTS_QUOTES = ",\"";

std::string csvField(const std::string& text) {
    std::string field = visible(text);
    if (!field.empty() && FORMULA_STARTS.find(field.front()) != std::string_view::npos) field.insert(0, 1, '\'');
    if (field.find_first_of(WANTS_QUOTES) == std::string::npos) return field;
    std::string quoted = "\"";
    for (const char c : field) quoted.append(c == '"' ? 2 : 1, c);
    return quoted + "\"";
}

}  // namespace

std::string csvLine(const std::vector<std::string>& fields) {
    std::string line;
    for (std::size_t i = 0; i < fields.size(); ++i) line.append(i == 0 ? "" : ",").append(csvField(fields[i]));
    return line + "\r\n";
}

std::string headings(std::vector<std::string> names) {
    for (std::string& name : names) name = gettext(name.c_str());
    return "\xEF\xBB\xBF" + csvLine(names);
}

std::string csvTime(std::int64_t seconds) { return seconds == 0 ? "" : timeText(seconds); }
