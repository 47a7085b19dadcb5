#pragma once

#include <algorithm>
#include <cctype>
#include <string_view>

namespace keldra {

/// Whether a text holds a word of small letters, in letters of any size.
inline bool containsWord(std::string_view text, std::string_view word) {
    const auto same = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
    return std::search(text.begin(), text.end(), word.begin(), word.end(), same) != text.end();
}

}  // namespace keldra
