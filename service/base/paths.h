#pragma once

#include <string>
#include <vector>

namespace keldra {

/// Whether a file name is left out by one of the patterns. A pattern covers the whole name, so "*.tmp" leaves out
/// "a.tmp" and not "a.tmp.txt".
bool matchesPattern(const std::string& name, const std::vector<std::string>& patterns);

/// The paths without "." and "..", doubled and trailing slashes; empty ones are dropped.
std::vector<std::string> normalPaths(const std::vector<std::string>& paths);

/// Whether `path` is one of `folders` (both normal) or lies below one of them.
bool liesBelow(const std::string& path, const std::vector<std::string>& folders);

}  // namespace keldra
