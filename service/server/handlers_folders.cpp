#include "norv/path_list.h"
#include "norv/protocol/folders.h"
#include "service/base/paths.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"
#include "service/tree/file_walk.h"
#include "service/tree/share_roots.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <vector>

namespace keldra::handlers {

namespace {

constexpr std::size_t MAX_FOLDERS = 2000;
constexpr std::size_t MAX_EXAMPLES = 20;
/// How long a preview may count, well within the time for which a client waits.
constexpr std::chrono::seconds PREVIEW_TIME{5};

/// Where a file system counts a folder's subfolders as its links, 2 means none; others always say 1.
bool mayHoldFolders(const struct stat& status) { return status.st_nlink != 2; }

/// The folders in an open folder, by name; links are left out. `path`: that of the folder.
std::vector<protocol::Folder> foldersIn(FileDescriptor folder, const std::string& path) {
    std::vector<protocol::Folder> folders;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(folder.get()), ::closedir);
    if (!entries) return folders;
    const int directory = folder.release();
    while (const dirent* const entry = folders.size() < MAX_FOLDERS ? ::readdir(entries.get()) : nullptr) {
        const std::string name = &entry->d_name[0];
        struct stat status {};
        if (name == "." || name == ".." || (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN)) continue;
        if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode)) continue;
        folders.push_back({(path == "/" ? "" : path) + "/" + name, name, mayHoldFolders(status)});
    }
    std::sort(folders.begin(), folders.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return folders;
}

/// Files of the folders with and without the excludes, counted for a limited time.
protocol::ExcludeEffect preview(const WalkPlan& plan) {
    protocol::ExcludeEffect effect;
    WalkPlan everything;
    everything.roots = plan.roots;
    everything.until = std::chrono::steady_clock::now() + PREVIEW_TIME;
    const auto look = [&](const std::string& path) {
        const bool out = liesBelow(path, plan.excludeFolders) ||
                         matchesPattern(std::filesystem::path(path).filename(), plan.excludePatterns);
        ++(out ? effect.left : effect.kept);
        if (out && effect.examples.size() < MAX_EXAMPLES) effect.examples.push_back(path);
    };
    FileWalk walk(everything, [&look](const std::string& path, const std::string&) { look(path); });
    while (const auto file = walk.next({})) look(file->path);
    effect.complete = std::chrono::steady_clock::now() < everything.until;
    return effect;
}

/// The first fault of folders that are to be looked through.
std::string faultOf(const std::vector<std::string>& roots, const std::vector<std::string>& folders) {
    if (folders.empty()) return "No folder to scan is set.";
    for (const std::string& path : folders) {
        const SharedFolder folder = openSharedFolder(roots, path);
        if (!folder.folder) return folder.fault + ": " + path;
    }
    return {};
}

}  // namespace

bool listFolders(ConfigurationStore& configuration, const IPCMessage& request, IPCMessage& reply) {
    const std::vector<std::string> roots = shareRoots(*configuration.snapshot());
    const auto path = protocol::read<protocol::ListFolders>(request).path;
    protocol::FolderList list;
    if (path.empty()) {
        for (const std::string& root : roots) list.folders.push_back({root, root, true});
        write(reply, list);
        return true;
    }
    SharedFolder folder = openSharedFolder(roots, path);
    if (!folder.folder) return refuse(folder.fault + ": " + path, reply);
    list.folders = foldersIn(std::move(folder.folder), folder.path);
    list.complete = list.folders.size() < MAX_FOLDERS;
    write(reply, list);
    return true;
}

bool previewExcludes(ConfigurationStore& configuration, const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::PreviewExcludes>(request);
    WalkPlan plan;
    plan.roots = splitPathList(wanted.scanPaths);
    plan.excludeFolders = normalPaths(splitPathList(wanted.excludePaths));
    plan.excludePatterns = splitPathList(wanted.excludePatterns);
    const std::string fault = faultOf(shareRoots(*configuration.snapshot()), plan.roots);
    if (!fault.empty()) return refuse(fault, reply);
    write(reply, preview(plan));
    return true;
}

}  // namespace keldra::handlers
