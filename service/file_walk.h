#pragma once

#include "service/scanned_file.h"

#include <functional>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// Where a walk goes.
struct WalkPlan {
    std::vector<std::string> roots;                       ///< folders or single files, absolute
    std::vector<std::string> excludeFolders;              ///< left out with all below them
    std::vector<std::string> excludePatterns;             ///< shell patterns that a whole file name is matched against
    std::function<bool(const std::string& name)> wanted;  ///< by name; empty: every file
};

/// Whether a file name is left out by one of the patterns. A pattern covers the whole name, so "*.tmp" leaves out
/// "a.tmp" and not "a.tmp.txt".
bool matchesPattern(const std::string& name, const std::vector<std::string>& patterns);

/// The paths without "." and "..", doubled and trailing slashes; empty ones are dropped.
std::vector<std::string> normalPaths(const std::vector<std::string>& paths);

/// Whether `path` is one of `folders` (both normal) or lies below one of them.
bool liesBelow(const std::string& path, const std::vector<std::string>& folders);

/// Calls `visit` for every wanted regular file, opened for reading, and `skipped` for everything that could not be
/// opened or read, with the reason in words. Symbolic links are not followed, neither below a root nor as a root;
/// devices, pipes and sockets are passed over; the kernel's own file systems (such as /proc) are left out. What lies
/// under two roots is visited once. Returns when all is done or a stop was asked for.
void walkFiles(const WalkPlan& plan, const std::function<void(ScannedFile)>& visit,
               const std::function<void(const std::string& path, const std::string& reason)>& skipped,
               std::stop_token stop);

/// Counts what `walkFiles` would visit or skip, without opening files: `found` is called for each of them.
void countFiles(const WalkPlan& plan, const std::function<void()>& found, std::stop_token stop);

}  // namespace keldra
