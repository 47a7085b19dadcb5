#pragma once

#include <string>
#include <vector>

/// Opens every CSV file: tells spreadsheets that it is UTF-8.
inline constexpr const char* CSV_START = "\xEF\xBB\xBF";

/// One line of a CSV file (RFC 4180), with its line end. A text that a spreadsheet would take for a formula gets a
/// single quote in front: names of files come from anywhere.
std::string csvLine(const std::vector<std::string>& fields);
