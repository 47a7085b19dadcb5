#include "webui/console/csv.h"

#include <string_view>

namespace {

constexpr std::string_view FORMULA_STARTS = "=+-@\t\r";
constexpr std::string_view WANTS_QUOTES = ",\"\r\n";

std::string csvField(const std::string& text) {
    std::string field = text;
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
