#include "service/realtime/watched_places.h"

#include "service/base/files.h"
#include "service/base/paths.h"
#include "service/tree/kernel_file_systems.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string_view>
#include <utility>

namespace keldra {

namespace {

/// A field of mountinfo: the kernel writes blanks and backslashes as three octal digits.
std::string unescapeMount(const std::string& field) {
    std::string text;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const bool escape = field[i] == '\\' && i + 3 < field.size();
        text += escape ? static_cast<char>(std::strtol(field.substr(i + 1, 3).c_str(), nullptr, 8)) : field[i];
        if (escape) i += 3;
    }
    return text;
}

/// `below` is empty or begins with a slash.
std::string joined(const std::string& folder, const std::string& below) {
    if (folder != "/") return folder + below;
    return below.empty() ? folder : below;
}

/// File systems that another machine or a program answers for, and that may never answer.
bool isRemoteType(const std::string& type) {
    static constexpr std::array<std::string_view, 15> TYPES{"9p",   "afs",  "autofs",    "beegfs", "ceph",
                                                            "cifs", "coda", "glusterfs", "gfs2",   "lustre",
                                                            "nfs",  "nfs4", "ocfs2",     "smb3",   "virtiofs"};
    return type.starts_with("fuse") || std::find(TYPES.begin(), TYPES.end(), type) != TYPES.end();
}

/// A program's file system names in its options who mounted it.
bool isOfUser(const std::string& type, const std::string& options) {
    constexpr std::string_view WHO = "user_id=";
    const std::size_t at = options.find(WHO);
    return type.starts_with("fuse") && at != std::string::npos && options.substr(at + WHO.size(), 2) != "0,";
}

/// What follows `folder` in a path that lies below it.
std::string behind(const std::string& folder, const std::string& path) {
    return folder == "/" ? (path == "/" ? "" : path) : path.substr(folder.size());
}

/// The folder's path without symbolic links; empty with errno set.
std::string realFolder(const std::string& folder) {
    const std::unique_ptr<char, decltype(&std::free)> path(realpath(folder.c_str(), nullptr), &std::free);
    return path ? path.get() : std::string();
}

/// The mount that a path leads into: the last one with the longest mount point.
const Mount* mountOf(const std::string& path, const std::vector<Mount>& mounts) {
    const Mount* found = nullptr;
    for (const Mount& mount : mounts)
        if (liesBelow(path, {mount.point}) && (!found || mount.point.size() >= found->point.size())) found = &mount;
    return found;
}

/// Other names of a folder and of parts of it: where its file system is mounted once more.
std::vector<std::string> otherNames(const std::string& folder, const std::vector<Mount>& mounts) {
    std::vector<std::string> names;
    const Mount* const own = mountOf(folder, mounts);
    if (!own) return names;
    const std::string inner = joined(own->root, behind(own->point, folder));
    for (const Mount& mount : mounts) {
        if (&mount == own || mount.device != own->device) continue;
        if (liesBelow(mount.root, {inner}))
            names.push_back(mount.point);
        else if (liesBelow(inner, {mount.root}))
            names.push_back(joined(mount.point, behind(mount.root, inner)));
    }
    return names;
}

void addNames(std::vector<std::string>& all, const std::string& folder, const std::vector<Mount>& mounts) {
    all.push_back(folder);
    for (std::string& name : otherNames(folder, mounts)) all.push_back(std::move(name));
}

/// As mountinfo writes it.
std::string deviceOf(const struct stat& file) {
    return std::to_string(major(file.st_dev)) + ':' + std::to_string(minor(file.st_dev));
}

/// Links that lead to a watched folder are the administrator's; one below it may be anybody's.
void addExcluded(Places& places, const std::string& excluded, const OnAccessSettings& settings,
                 const std::vector<Mount>& mounts) {
    std::string path = excluded;
    for (const std::string& folder : normalPaths(settings.folders)) {
        const std::string real = liesBelow(excluded, {folder}) ? realFolder(folder) : std::string();
        if (!real.empty()) path = joined(real, behind(folder, excluded));
    }
    if (openPlainFolder(path))
        addNames(places.neverScan, path, mounts);
    else if (errno == ELOOP)
        places.troubles.push_back(excluded + " is left out by its name only: a symbolic link leads to it");
}

/// A file's handle: names it within its file system, whatever the path.
struct FileHandle {
    alignas(file_handle) char bytes[sizeof(file_handle) + MAX_HANDLE_SZ] = {};

    file_handle* get() { return reinterpret_cast<file_handle*>(&bytes[0]); }
    bool take(int fd) {
        get()->handle_bytes = MAX_HANDLE_SZ;
        int mount = 0;
        return ::name_to_handle_at(fd, "", get(), &mount, AT_EMPTY_PATH) == 0;
    }
};

}  // namespace

std::vector<Mount> currentMounts() {
    std::vector<Mount> mounts;
    std::ifstream file("/proc/self/mountinfo");
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        Mount mount;
        std::string skipped, type, source, options;
        fields >> mount.id >> skipped >> mount.device >> mount.root >> mount.point;
        while (fields >> skipped && skipped != "-") continue;
        fields >> type >> source >> options;
        mount.root = unescapeMount(mount.root);
        mount.point = unescapeMount(mount.point);
        mount.remote = isRemoteType(type);
        mount.ofUser = isOfUser(type, options + ',');
        if (fields && !isKernelFileSystem(type)) mounts.push_back(std::move(mount));
    }
    return mounts;
}

bool Places::concern(const std::string& path) const { return liesBelow(path, watched) && !liesBelow(path, neverScan); }

Places placesOf(const OnAccessSettings& settings, const std::vector<Mount>& mounts) {
    Places places;
    for (const std::string& folder : settings.folders) {
        const std::string path = realFolder(folder);
        if (path.empty()) places.troubles.push_back(folder + " is not watched: " + errorText(errno));
        if (!path.empty()) addNames(places.watched, path, mounts);
    }
    places.neverScan = normalPaths(settings.neverScan);
    for (const std::string& folder : normalPaths(settings.neverScan)) addExcluded(places, folder, settings, mounts);
    for (const std::string& folder : settings.ownFolders) {
        const std::string path = realFolder(folder);
        addNames(places.own, path.empty() ? folder : path, mounts);
    }
    places.neverScan.insert(places.neverScan.end(), places.own.begin(), places.own.end());
    const auto toMark = [&places](const std::string& path, const Mount* mount) {
        places.toMark.push_back({path, mount && mount->remote ? mount->device : std::string()});
    };
    for (const std::string& path : places.watched) toMark(path, mountOf(path, mounts));
    for (const Mount& mount : mounts) {
        places.mounts.insert(mount.id);
        if (!liesBelow(mount.point, places.watched)) continue;
        // Its program shows what it likes at each reading, and may hold up whoever reads for ever.
        if (mount.ofUser)
            places.troubles.push_back(mount.point + " is not watched: a user mounted it");
        else
            toMark(mount.point, &mount);
    }
    return places;
}

OnAccessSettings withoutRemoteFolders(const OnAccessSettings& settings, const std::vector<Mount>& mounts) {
    OnAccessSettings local = settings;
    for (auto* const folders : {&local.folders, &local.neverScan})
        std::erase_if(*folders, [&](const std::string& folder) {
            const Mount* const mount = mountOf(folder, mounts);
            return mount && mount->remote;
        });
    return local;
}

bool openedElsewhere(int fd, const Places& places) {
    struct statx status {};
    if (::statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) != 0) return false;
    return (status.stx_mask & STATX_MNT_ID) != 0 && places.mounts.count(status.stx_mnt_id) == 0;
}

std::string pathHere(int fd, const Places& places) {
    FileHandle handle;
    struct stat file {};
    if (::fstat(fd, &file) != 0 || !handle.take(fd)) return {};
    for (const PlaceToMark& place : places.toMark) {
        // One that does not answer is asked only about its own files.
        if (!place.remoteDevice.empty() && place.remoteDevice != deviceOf(file)) continue;
        const FileDescriptor folder(::open(place.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        const FileDescriptor found(folder ? ::open_by_handle_at(folder.get(), handle.get(), O_PATH | O_CLOEXEC) : -1);
        struct stat same {};
        // In another file system the handle may name another file.
        if (!found || ::fstat(found.get(), &same) != 0) continue;
        if (same.st_dev == file.st_dev && same.st_ino == file.st_ino) return descriptorPath(found.get());
    }
    return {};
}

}  // namespace keldra
