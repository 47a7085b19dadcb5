#include "service/base/paths.h"

#include <fnmatch.h>

#include <algorithm>
#include <filesystem>

namespace keldra {

namespace {

std::string normal(const std::string& path) {
    std::string text = std::filesystem::path(path).lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

}  // namespace

bool matchesPattern(const std::string& name, const std::vector<std::string>& patterns) {
    return std::any_of(patterns.begin(), patterns.end(), [&name](const std::string& pattern) {
        return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
    });
}

std::vector<std::string> normalPaths(const std::vector<std::string>& paths) {
    std::vector<std::string> all;
    for (const std::string& path : paths) {
        if (!path.empty()) all.push_back(normal(path));
    }
    return all;
}

bool liesBelow(const std::string& path, const std::vector<std::string>& folders) {
    return std::any_of(folders.begin(), folders.end(), [&path](const std::string& folder) {
        if (folder == "/") return true;
        if (path.compare(0, folder.size(), folder) != 0) return false;
        return path.size() == folder.size() || path[folder.size()] == '/';
    });
}

}  // namespace keldra
