#pragma once

#include <string>

/// Reads a whole file. False, with `text` untouched, when it cannot be opened.
bool readTextFile(const std::string& path, std::string& text);

/// The first line of a text, without its line feed.
std::string firstLine(const std::string& text);
