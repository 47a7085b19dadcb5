#include "service/tree/share_roots.h"

#include "norv/path_list.h"
#include "norv/scan_config.h"
#include "service/base/paths.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace keldra {

namespace {

constexpr int AS_FOLDER = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool isAbsolute(const std::string& path) { return std::filesystem::path(path).is_absolute(); }

std::string faultOf(int error, bool link) {
    if (link) return "The path leads over a symbolic link, which is not followed";
    if (error == ENOENT || error == ENOTDIR) return "There is no such folder";
    return errorText(error);
}

/// The root that holds a path; of several the longest.
const std::string* rootOf(const std::vector<std::string>& roots, const std::string& path) {
    const std::string* best = nullptr;
    for (const std::string& root : roots)
        if (liesBelow(path, {root}) && (!best || root.size() > best->size())) best = &root;
    return best;
}

/// Goes from the open folder of a root down to `path`, name by name, so that nothing swapped on the way leads
/// elsewhere.
void descend(SharedFolder& found, const std::string& root) {
    for (const auto& name : std::filesystem::path(found.path).lexically_relative(root)) {
        if (name == ".") continue;
        FileDescriptor next(::openat(found.folder.get(), name.c_str(), AS_FOLDER | O_NOFOLLOW));
        if (!next) {
            const int error = errno;
            struct stat status {};
            const bool known = ::fstatat(found.folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
            found.fault = faultOf(error, known && S_ISLNK(status.st_mode));
            found.folder.reset();
            return;
        }
        found.folder = std::move(next);
    }
}

}  // namespace

std::vector<std::string> shareRoots(const NORVConfig& config) {
    const std::string named = configValueOr(config, "Configuration", "ShareRoots", std::string());
    std::vector<std::string> paths = splitPathList(named);
    if (paths.empty()) {
        for (const std::string& list :
             {NORVManualScanConfig(config).scanPaths, NORVScheduledScanConfig(config).scanPaths,
              NORVRealtimeScanConfig(config).scanPaths}) {
            for (std::string& path : splitPathList(list)) paths.push_back(std::move(path));
        }
    }
    std::erase_if(paths, [](const std::string& path) { return !isAbsolute(path); });
    paths = normalPaths(paths);
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    return paths;
}

SharedFolder openSharedFolder(const std::vector<std::string>& roots, const std::string& path) {
    SharedFolder found;
    const std::vector<std::string> normal = normalPaths({path});
    const std::string* const root = !normal.empty() && isAbsolute(path) ? rootOf(roots, normal.front()) : nullptr;
    if (!root) {
        found.fault = "The folder is none of those that may be scanned from the console";
        return found;
    }
    found.path = normal.front();
    found.folder = FileDescriptor(::open(root->c_str(), AS_FOLDER));
    if (found.folder)
        descend(found, *root);
    else
        found.fault = faultOf(errno, false);
    return found;
}

std::string checkNewFolders(const NORVConfig& config, const std::string& before, const std::string& after) {
    const std::vector<std::string> known = normalPaths(splitPathList(before));
    const std::vector<std::string> roots = shareRoots(config);
    for (const std::string& path : normalPaths(splitPathList(after))) {
        if (std::find(known.begin(), known.end(), path) != known.end()) continue;
        const SharedFolder folder = openSharedFolder(roots, path);
        if (!folder.folder) return folder.fault + ": " + path;
    }
    return {};
}

}  // namespace keldra
