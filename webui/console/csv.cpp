#include "webui/console/csv.h"

#include "norv/printable.h"
#include "norv/time_text.h"

#include <libintl.h>

#include <array>
#include <cstdio>
#include <string_view>

namespace {

/// The code point of a sign, between brackets; of a byte that is no UTF-8 the sign for that.
std::string picture(std::string_view sign) {
    const auto first = static_cast<unsigned char>(sign[0]);
    if (sign.size() == 1 && first >= 0x80) return "\uFFFD";
    unsigned code = sign.size() == 1 ? first : first & (0xFFU >> (sign.size() + 1));
    for (const char c : sign.substr(1)) code = code << 6U | (static_cast<unsigned char>(c) & 0x3FU);
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "\u27E8U+%04X\u27E9", code);
    return text.data();
}

constexpr std::string_view FORMULA_STARTS = "=+-@";
constexpr std::string_view WANTS_QUOTES = ",\"";

std::string csvField(const std::string& text) {
    // A name could pose as another with what is not seen.
    std::string field = withPictures(text, picture);
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
