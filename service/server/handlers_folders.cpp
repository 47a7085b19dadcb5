#include "norv/path_list.h"
#include "service/base/json_text.h"
#include "service/base/paths.h"
#include "service/server/handlers.h"
#include "service/server/service.h"
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

struct Folder {
    std::string name;
    bool mayHoldFolders = true;
};

/// Where a file system counts a folder's subfolders as its links, 2 means none; others always say 1.
bool mayHoldFolders(const struct stat& status) { return status.st_nlink != 2; }

/// The folders in an open folder, by name; links are left out.
std::vector<Folder> foldersIn(FileDescriptor folder) {
    std::vector<Folder> folders;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(folder.get()), ::closedir);
    if (!entries) return folders;
    const int directory = folder.release();
    while (const dirent* const entry = folders.size() < MAX_FOLDERS ? ::readdir(entries.get()) : nullptr) {
        const std::string name = &entry->d_name[0];
        struct stat status {};
        if (name == "." || name == ".." || (entry->d_type != DT_DIR && entry->d_type != DT_UNKNOWN)) continue;
        if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode)) continue;
        folders.push_back({name, mayHoldFolders(status)});
    }
    std::sort(folders.begin(), folders.end(), [](const Folder& a, const Folder& b) { return a.name < b.name; });
    return folders;
}

void writeFolder(JsonText& json, const std::string& path, const Folder& folder) {
    json.object(
        [&] { json.member("path", path).member("name", folder.name).member("folders", folder.mayHoldFolders); });
}

std::string listText(const std::string& parent, const std::vector<Folder>& folders) {
    JsonText json;
    json.array([&] {
        for (const Folder& folder : folders)
            writeFolder(json, (parent == "/" ? "" : parent) + "/" + folder.name, folder);
    });
    return json.text();
}

std::string rootsText(const std::vector<std::string>& roots) {
    JsonText json;
    json.array([&] {
        for (const std::string& root : roots) writeFolder(json, root, {.name = root});
    });
    return json.text();
}

/// Files of the folders with and without the excludes, counted for a limited time.
struct Preview {
    std::size_t kept = 0;
    std::size_t left = 0;
    std::vector<std::string> examples;
    bool complete = true;
};

Preview preview(const WalkPlan& plan) {
    Preview result;
    WalkPlan everything;
    everything.roots = plan.roots;
    everything.until = std::chrono::steady_clock::now() + PREVIEW_TIME;
    const auto look = [&](const std::string& path) {
        const bool out = liesBelow(path, plan.excludeFolders) ||
                         matchesPattern(std::filesystem::path(path).filename(), plan.excludePatterns);
        ++(out ? result.left : result.kept);
        if (out && result.examples.size() < MAX_EXAMPLES) result.examples.push_back(path);
    };
    FileWalk walk(everything, [&look](const std::string& path, const std::string&) { look(path); });
    while (const auto file = walk.next({})) look(file->path);
    result.complete = std::chrono::steady_clock::now() < everything.until;
    return result;
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

bool refuse(const std::string& fault, IPCMessage& reply) {
    reply.addParam("Message", fault);
    return false;
}

}  // namespace

bool listFolders(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const std::vector<std::string> roots = shareRoots(*service.configuration().snapshot());
    const auto path = request.value<std::string>("Path");
    if (path.empty()) {
        reply.addParam("Folders", rootsText(roots));
        return true;
    }
    SharedFolder folder = openSharedFolder(roots, path);
    if (!folder.folder) return refuse(folder.fault + ": " + path, reply);
    const std::vector<Folder> folders = foldersIn(std::move(folder.folder));
    reply.addParam("Folders", listText(folder.path, folders));
    reply.addParam("Complete", folders.size() < MAX_FOLDERS ? 1 : 0);
    return true;
}

bool previewExcludes(Service& service, const IPCMessage& request, IPCMessage& reply) {
    WalkPlan plan;
    plan.roots = splitPathList(request.value<std::string>("ScanPaths"));
    plan.excludeFolders = normalPaths(splitPathList(request.value<std::string>("ExcludePaths")));
    plan.excludePatterns = splitPathList(request.value<std::string>("ExcludePatterns"));
    const std::string fault = faultOf(shareRoots(*service.configuration().snapshot()), plan.roots);
    if (!fault.empty()) return refuse(fault, reply);
    const Preview result = preview(plan);
    JsonText json;
    json.array([&] {
        for (const std::string& path : result.examples) json.value(path);
    });
    reply.addParam("Kept", result.kept);
    reply.addParam("Left", result.left);
    reply.addParam("Examples", json.text());
    reply.addParam("Complete", result.complete ? 1 : 0);
    return true;
}

}  // namespace keldra::handlers
