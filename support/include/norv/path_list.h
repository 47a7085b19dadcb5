#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The entries of a text that lists folders, patterns or URLs, separated by ";". A backslash takes the next character
/// literally, so "\;" stands for a ";" in a name. Empty entries are dropped.
std::vector<std::string> splitPathList(std::string_view text);

/// The way back: separators and backslashes in the entries are escaped.
std::string joinPathList(const std::vector<std::string>& entries);
