#include "service/file_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <set>
#include <utility>

namespace keldra {

namespace {

/// Folders inside folders; each level holds a descriptor while it is walked.
constexpr int DEEPEST = 256;

using Folder = std::shared_ptr<const FileDescriptor>;
using Identity = std::pair<dev_t, ino_t>;

std::string normal(const std::string& path) {
    std::string text = std::filesystem::path(path).lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

/// Without those that another one covers.
std::vector<std::string> outermost(std::vector<std::string> roots) {
    roots = normalPaths(roots);
    std::sort(roots.begin(), roots.end());
    std::vector<std::string> kept;
    for (const std::string& root : roots) {
        if (!liesBelow(root, kept)) kept.push_back(root);
    }
    return kept;
}

std::string below(const std::string& folder, const std::string& name) {
    std::string path = folder;
    if (path.back() != '/') path += '/';
    return path += name;
}

bool isKernelFileSystem(int fd) {
    static constexpr std::array<unsigned long, 16> TYPES{
        PROC_SUPER_MAGIC, SYSFS_MAGIC,   CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, DEVPTS_SUPER_MAGIC,
        DEBUGFS_MAGIC,    TRACEFS_MAGIC, SECURITYFS_MAGIC,   BPF_FS_MAGIC,        EFIVARFS_MAGIC,
        SELINUX_MAGIC,    NSFS_MAGIC,    BINFMTFS_MAGIC,     PSTOREFS_MAGIC,      0x62656570,  // configfs
        0x19800202};                                                                           // mqueue
    struct statfs info {};
    if (::fstatfs(fd, &info) != 0) return false;
    const auto type = static_cast<unsigned long>(info.f_type) & 0xffffffffUL;
    return std::find(TYPES.begin(), TYPES.end(), type) != TYPES.end();
}

/// What a walk does with what it meets.
class Visitor {
public:
    Visitor() = default;
    Visitor(const Visitor&) = delete;
    Visitor& operator=(const Visitor&) = delete;
    virtual ~Visitor() = default;
    virtual void file(const Folder& folder, const std::string& name, const std::string& path) = 0;
    virtual void skipped(const std::string& path, const std::string& reason) = 0;
};

class Walk {
public:
    Walk(const WalkPlan& plan, Visitor& visitor, std::stop_token stop);
    void run();

private:
    void root(const std::string& path);
    void folder(const Folder& folder, const std::string& path, dev_t device, int depth);
    void subfolder(const Folder& parent, const std::string& name, const std::string& path, dev_t device, int depth);
    bool readEntries(const Folder& folder, const std::string& path, std::vector<std::string>& subfolders);
    void entry(const Folder& folder, const dirent& found, const std::string& path,
               std::vector<std::string>& subfolders);
    void file(const Folder& folder, const std::string& name, const std::string& path);
    bool excluded(const std::string& path, const struct stat& status) const;
    void skip(const std::string& path, int error) { visitor_.skipped(path, errorText(error)); }

    const WalkPlan& plan_;
    Visitor& visitor_;
    std::stop_token stop_;
    std::vector<std::string> roots_;
    std::vector<std::string> excludePaths_;
    std::set<Identity> excludeIdentities_;
};

Walk::Walk(const WalkPlan& plan, Visitor& visitor, std::stop_token stop)
    : plan_(plan),
      visitor_(visitor),
      stop_(std::move(stop)),
      roots_(outermost(plan.roots)),
      excludePaths_(normalPaths(plan.excludeFolders)) {
    for (const std::string& path : excludePaths_) {
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0) excludeIdentities_.emplace(status.st_dev, status.st_ino);
    }
}

void Walk::run() {
    for (const std::string& path : roots_) {
        if (stop_.stop_requested()) return;
        root(path);
    }
}

bool Walk::excluded(const std::string& path, const struct stat& status) const {
    return excludeIdentities_.count({status.st_dev, status.st_ino}) != 0 || liesBelow(path, excludePaths_);
}

void Walk::root(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return skip(path, errno);
    if (S_ISLNK(status.st_mode)) return visitor_.skipped(path, "it is a symbolic link, which is not followed");
    if (excluded(path, status)) return;
    if (S_ISDIR(status.st_mode)) {
        auto opened =
            std::make_shared<FileDescriptor>(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!*opened) return skip(path, errno);
        if (!isKernelFileSystem(opened->get())) folder(opened, path, status.st_dev, 0);
        return;
    }
    if (!S_ISREG(status.st_mode)) return visitor_.skipped(path, "it is neither a folder nor a regular file");
    const std::filesystem::path whole(path);
    auto parent =
        std::make_shared<FileDescriptor>(::open(whole.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!*parent) return skip(path, errno);
    file(parent, whole.filename().string(), path);
}

void Walk::folder(const Folder& folder, const std::string& path, dev_t device, int depth) {
    std::vector<std::string> subfolders;
    if (!readEntries(folder, path, subfolders)) return;
    for (const std::string& name : subfolders) {
        if (stop_.stop_requested()) return;
        subfolder(folder, name, below(path, name), device, depth + 1);
    }
}

void Walk::subfolder(const Folder& parent, const std::string& name, const std::string& path, dev_t device, int depth) {
    if (depth > DEEPEST) return visitor_.skipped(path, "its folder is nested too deeply");
    auto opened = std::make_shared<FileDescriptor>(
        ::openat(parent->get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!*opened) return skip(path, errno);
    struct stat status {};
    if (::fstat(opened->get(), &status) != 0) return skip(path, errno);
    if (excluded(path, status)) return;
    if (status.st_dev != device && isKernelFileSystem(opened->get())) return;
    folder(opened, path, status.st_dev, depth);
}

/// Files are dealt with at once; the names of folders are kept until the reading is over.
bool Walk::readEntries(const Folder& folder, const std::string& path, std::vector<std::string>& subfolders) {
    FileDescriptor own(::openat(folder->get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(own ? ::fdopendir(own.get()) : nullptr, ::closedir);
    if (!entries) {
        skip(path, errno);
        return false;
    }
    own.release();
    while (!stop_.stop_requested()) {
        errno = 0;
        const dirent* found = ::readdir(entries.get());
        if (found == nullptr) {
            if (errno != 0) skip(path, errno);
            return true;
        }
        entry(folder, *found, path, subfolders);
    }
    return false;
}

void Walk::entry(const Folder& folder, const dirent& found, const std::string& path,
                 std::vector<std::string>& subfolders) {
    const std::string name = &found.d_name[0];
    if (name == "." || name == "..") return;
    const std::string whole = below(path, name);
    unsigned char type = found.d_type;
    if (type == DT_UNKNOWN) {
        struct stat status {};
        if (::fstatat(folder->get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return skip(whole, errno);
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
    }
    if (type == DT_DIR) subfolders.push_back(name);
    if (type == DT_REG) file(folder, name, whole);
}

void Walk::file(const Folder& folder, const std::string& name, const std::string& path) {
    if (matchesPattern(name, plan_.excludePatterns)) return;
    if (plan_.wanted && !plan_.wanted(name)) return;
    visitor_.file(folder, name, path);
}

class OpeningVisitor : public Visitor {
public:
    OpeningVisitor(const std::function<void(ScannedFile)>& visit,
                   const std::function<void(const std::string&, const std::string&)>& skipped)
        : visit_(visit), skipped_(skipped) {}

    void file(const Folder& folder, const std::string& name, const std::string& path) override {
        std::optional<ScannedFile> opened = openInFolder(folder, name, path);
        if (opened) return visit_(std::move(*opened));
        // EINVAL: it became a pipe or the like; ELOOP: it became a symbolic link.
        skipped_(path, errno == EINVAL || errno == ELOOP ? "it is no regular file any more" : errorText(errno));
    }
    void skipped(const std::string& path, const std::string& reason) override { skipped_(path, reason); }

private:
    const std::function<void(ScannedFile)>& visit_;
    const std::function<void(const std::string&, const std::string&)>& skipped_;
};

class CountingVisitor : public Visitor {
public:
    explicit CountingVisitor(const std::function<void()>& found) : found_(found) {}
    void file(const Folder& /*folder*/, const std::string& /*name*/, const std::string& /*path*/) override { found_(); }
    void skipped(const std::string& /*path*/, const std::string& /*reason*/) override { found_(); }

private:
    const std::function<void()>& found_;
};

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

void walkFiles(const WalkPlan& plan, const std::function<void(ScannedFile)>& visit,
               const std::function<void(const std::string& path, const std::string& reason)>& skipped,
               std::stop_token stop) {
    OpeningVisitor visitor(visit, skipped);
    Walk(plan, visitor, std::move(stop)).run();
}

void countFiles(const WalkPlan& plan, const std::function<void()>& found, std::stop_token stop) {
    CountingVisitor visitor(found);
    Walk(plan, visitor, std::move(stop)).run();
}

}  // namespace keldra
