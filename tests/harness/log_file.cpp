#include "tests/harness/log_file.h"

#include <fstream>
#include <regex>

namespace {

/// Where the parenthesis stands that the last character closes; npos when the text does not end in one.
std::size_t openingOfLast(const std::string& text) {
    int depth = 0;
    for (std::size_t i = text.size(); i > 0; --i) {
        if (text[i - 1] == ')') ++depth;
        if (text[i - 1] == '(') --depth;
        if (depth == 0) return i == text.size() ? std::string::npos : i - 1;
    }
    return std::string::npos;
}

/// Takes "(function file:line)" or "(function)" off the end of the message, where it is there.
void splitPlace(LogLine& line) {
    static const std::regex form(R"(^(?:([A-Za-z_]\w*)|(.+) (\S+:\d+))$)");
    const std::size_t opening = openingOfLast(line.message);
    // The expression must not meet a text of any length: std::regex recurses with every character.
    if (opening == std::string::npos || opening == 0 || line.message[opening - 1] != ' ') return;
    const std::string inner = line.message.substr(opening + 1, line.message.size() - opening - 2);
    std::smatch match;
    if (inner.size() > 1000 || !std::regex_match(inner, match, form)) return;
    line.function = match[1].matched ? match[1] : match[2];
    line.place = match[3];
    line.message.resize(opening - 1);
}

// "2026-01-31T12:00:00.123Z scanoption.cgi[42] 5 ENTER (int f(const char*) webui/cgi/x.cpp:7)"
LogLine parse(const std::string& text) {
    static const std::regex form(R"(^\S+ ([^\s\[]+)\[\d+\] (\d+) $)");
    std::size_t start = 0;
    for (int blanks = 0; blanks < 3 && start != std::string::npos; ++blanks) {
        start = text.find(' ', start);
        if (start != std::string::npos) ++start;
    }
    std::smatch match;
    const std::string front = text.substr(0, start);
    if (front.size() > 1000 || !std::regex_match(front, match, form)) return {.severity = -1, .message = text};
    LogLine line{.severity = std::stoi(match[2]), .message = text.substr(start), .program = match[1]};
    splitPlace(line);
    return line;
}

}  // namespace

std::vector<LogLine> readLog(const std::filesystem::path& file) {
    std::vector<LogLine> lines;
    std::ifstream in(file);
    for (std::string text; std::getline(in, text);) lines.push_back(parse(text));
    return lines;
}
