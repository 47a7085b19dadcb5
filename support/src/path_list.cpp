#include "norv/path_list.h"

namespace {

constexpr char SEPARATOR = ';';
constexpr char ESCAPE = '\\';

void addEntry(std::vector<std::string>& entries, std::string& entry) {
    if (!entry.empty()) entries.push_back(entry);
    entry.clear();
}

}  // namespace

std::vector<std::string> splitPathList(std::string_view text) {
    std::vector<std::string> entries;
    std::string entry;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == SEPARATOR) {
            addEntry(entries, entry);
            continue;
        }
        if (text[i] == ESCAPE && i + 1 < text.size()) ++i;
        entry += text[i];
    }
    addEntry(entries, entry);
    return entries;
}

std::string joinPathList(const std::vector<std::string>& entries) {
    std::string text;
    for (const std::string& entry : entries) {
        if (entry.empty()) continue;
        if (!text.empty()) text += SEPARATOR;
        for (const char c : entry) {
            if (c == SEPARATOR || c == ESCAPE) text += ESCAPE;
            text += c;
        }
    }
    return text;
}
