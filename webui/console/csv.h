#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// The beginning of a CSV file: what tells spreadsheets that it is UTF-8, and the line of headings. `names`: English,
/// written in the console's language.
std::string headings(std::vector<std::string> names);

/// A time as spreadsheets understand it, in the server's time zone; nothing for 0. `seconds`: since the epoch.
std::string csvTime(std::int64_t seconds);

/// One line of a CSV file (RFC 4180), with its line end. A text that a spreadsheet would take for a formula gets a
/// single quote in front, and control characters and marks that turn the order of letters round are written out: names
/// of files come from anywhere.
std::string csvLine(const std::vector<std::string>& fields);
