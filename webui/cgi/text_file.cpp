#include "webui/cgi/text_file.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <utility>

bool readTextFile(const std::string& path, std::string& text) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"), std::fclose);
    if (!file) return false;
    std::string content;
    std::array<char, 16384> block;
    for (std::size_t got = 0; (got = std::fread(block.data(), 1, block.size(), file.get())) > 0;) {
        content.append(block.data(), got);
    }
    text = std::move(content);
    return true;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }
