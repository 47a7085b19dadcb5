#include "service/tree/file_walk.h"

#include "service/base/paths.h"
#include "service/tree/kernel_file_systems.h"
#include "service/tree/share_roots.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <set>
#include <utility>

namespace keldra {

namespace {

/// Folders inside folders; each level holds a descriptor while it is walked.
constexpr std::size_t DEEPEST = 256;

using Folder = std::shared_ptr<const FileDescriptor>;
using Identity = std::pair<dev_t, ino_t>;

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

using Entries = std::unique_ptr<DIR, int (*)(DIR*)>;

/// A folder on the way from a root to where the walk is.
struct Level {
    Folder folder;
    std::string path;
    dev_t device = 0;
    Entries entries{nullptr, ::closedir};  ///< gone once all are read; the subfolders come afterwards
    std::deque<std::string> subfolders;
};

}  // namespace

class FileWalk::State {
public:
    State(const WalkPlan& plan, Skipped skipped);
    std::optional<FoundFile> next(const std::stop_token& stop);

private:
    std::optional<FoundFile> root(const std::string& path);
    void enterRoot(const std::string& path, dev_t device);
    void enter(Folder folder, const std::string& path, dev_t device);
    void enterNext();
    std::optional<FoundFile> readEntry();
    std::optional<FoundFile> entry(const dirent& found);
    std::optional<FoundFile> file(const Folder& folder, const std::string& name, std::string path) const;
    bool excluded(const std::string& path, const struct stat& status) const;
    void skip(const std::string& path, int error) { skipped_(path, errorText(error)); }

    const WalkPlan& plan_;
    const Skipped skipped_;
    std::vector<std::string> roots_;  ///< the next one last
    std::vector<std::string> excludePaths_;
    std::set<Identity> excludeIdentities_;
    std::vector<Level> levels_;
};

FileWalk::State::State(const WalkPlan& plan, Skipped skipped)
    : plan_(plan),
      skipped_(std::move(skipped)),
      roots_(outermost(plan.roots)),
      excludePaths_(normalPaths(plan.excludeFolders)) {
    std::reverse(roots_.begin(), roots_.end());
    struct stat status {};
    for (const std::string& path : excludePaths_) {
        const FileDescriptor folder = openPlainFolder(path);
        if (folder && ::fstat(folder.get(), &status) == 0) excludeIdentities_.emplace(status.st_dev, status.st_ino);
    }
    for (const std::string& path : normalPaths(plan.ownFolders)) {
        if (::stat(path.c_str(), &status) == 0) excludeIdentities_.emplace(status.st_dev, status.st_ino);
        excludePaths_.push_back(path);
    }
}

std::optional<FoundFile> FileWalk::State::next(const std::stop_token& stop) {
    std::optional<FoundFile> found;
    while (!found && !stop.stop_requested() && std::chrono::steady_clock::now() < plan_.until) {
        if (levels_.empty()) {
            if (roots_.empty()) break;
            const std::string path = std::move(roots_.back());
            roots_.pop_back();
            found = root(path);
        } else if (levels_.back().entries) {
            found = readEntry();
        } else if (!levels_.back().subfolders.empty()) {
            enterNext();
        } else {
            levels_.pop_back();
        }
    }
    return found;
}

bool FileWalk::State::excluded(const std::string& path, const struct stat& status) const {
    return excludeIdentities_.count({status.st_dev, status.st_ino}) != 0 || liesBelow(path, excludePaths_);
}

std::optional<FoundFile> FileWalk::State::root(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return skip(path, errno), std::nullopt;
    if (S_ISLNK(status.st_mode)) return skipped_(path, "it is a symbolic link, which is not followed"), std::nullopt;
    if (excluded(path, status)) return std::nullopt;
    if (S_ISDIR(status.st_mode)) return enterRoot(path, status.st_dev), std::nullopt;
    if (!S_ISREG(status.st_mode)) return skipped_(path, "it is neither a folder nor a regular file"), std::nullopt;
    const std::filesystem::path whole(path);
    auto parent =
        std::make_shared<FileDescriptor>(::open(whole.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!*parent) return skip(path, errno), std::nullopt;
    return file(parent, whole.filename().string(), path);
}

void FileWalk::State::enterRoot(const std::string& path, dev_t device) {
    FileDescriptor opened;
    if (liesBelow(path, plan_.shareRoots)) {
        SharedFolder shared = openSharedFolder(plan_.shareRoots, path);
        if (!shared.folder) return skipped_(path, shared.fault);
        opened = std::move(shared.folder);
    } else {
        opened = FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!opened) return skip(path, errno);
    }
    if (!isKernelFileSystem(opened.get())) enter(std::make_shared<FileDescriptor>(std::move(opened)), path, device);
}

void FileWalk::State::enter(Folder folder, const std::string& path, dev_t device) {
    FileDescriptor own(::openat(folder->get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Entries entries(own ? ::fdopendir(own.get()) : nullptr, ::closedir);
    if (!entries) return skip(path, errno);
    own.release();
    levels_.push_back({std::move(folder), path, device, std::move(entries), {}});
}

void FileWalk::State::enterNext() {
    Level& parent = levels_.back();
    const std::string name = std::move(parent.subfolders.front());
    parent.subfolders.pop_front();
    const std::string path = below(parent.path, name);
    if (levels_.size() > DEEPEST) return skipped_(path, "its folder is nested too deeply");
    auto opened = std::make_shared<FileDescriptor>(
        ::openat(parent.folder->get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!*opened) return skip(path, errno);
    struct stat status {};
    if (::fstat(opened->get(), &status) != 0) return skip(path, errno);
    if (excluded(path, status)) return;
    if (status.st_dev != parent.device && isKernelFileSystem(opened->get())) return;
    enter(std::move(opened), path, status.st_dev);
}

/// Files are dealt with at once; the names of folders are kept until the reading is over.
std::optional<FoundFile> FileWalk::State::readEntry() {
    Level& level = levels_.back();
    errno = 0;
    const dirent* found = ::readdir(level.entries.get());
    if (found != nullptr) return entry(*found);
    if (errno != 0) skip(level.path, errno);
    level.entries.reset();
    return std::nullopt;
}

std::optional<FoundFile> FileWalk::State::entry(const dirent& found) {
    Level& level = levels_.back();
    const std::string name = &found.d_name[0];
    if (name == "." || name == "..") return std::nullopt;
    unsigned char type = found.d_type;
    if (type == DT_UNKNOWN) {
        struct stat status {};
        if (::fstatat(level.folder->get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            skip(below(level.path, name), errno);
            return std::nullopt;
        }
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
    }
    if (type == DT_DIR) level.subfolders.push_back(name);
    return type == DT_REG ? file(level.folder, name, below(level.path, name)) : std::nullopt;
}

std::optional<FoundFile> FileWalk::State::file(const Folder& folder, const std::string& name, std::string path) const {
    if (matchesPattern(name, plan_.excludePatterns)) return std::nullopt;
    if (plan_.wanted && !plan_.wanted(name)) return std::nullopt;
    return FoundFile{folder, name, std::move(path)};
}

namespace {

bool isKnown(const FoundFile& found, const FileWalk::Known& known) {
    struct stat status {};
    return ::fstatat(found.folder->get(), found.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode) && known(found.folder->get(), status);
}

}  // namespace

FileWalk::FileWalk(const WalkPlan& plan, Skipped skipped)
    : skipped_(std::move(skipped)), state_(std::make_unique<State>(plan, skipped_)) {}

FileWalk::~FileWalk() = default;

std::optional<FoundFile> FileWalk::next(const std::stop_token& stop) {
    const std::lock_guard lock(mutex_);
    return state_->next(stop);
}

std::optional<ScannedFile> FileWalk::nextOpened(const std::stop_token& stop, const Known& known) {
    while (const std::optional<FoundFile> found = next(stop)) {
        if (known && isKnown(*found, known)) continue;
        std::optional<ScannedFile> opened = openInFolder(found->folder, found->name, found->path);
        if (opened) return opened;
        // EINVAL: it became a pipe or the like; ELOOP: it became a symbolic link.
        const bool other = errno == EINVAL || errno == ELOOP;
        skipped_(found->path, other ? "it is no regular file any more" : errorText(errno));
    }
    return std::nullopt;
}

void countFiles(const WalkPlan& plan, const std::function<void(const FoundFile* file)>& found,
                const std::stop_token& stop) {
    FileWalk walk(plan, [&found](const std::string&, const std::string&) { found(nullptr); });
    while (const std::optional<FoundFile> file = walk.next(stop)) found(&*file);
}

}  // namespace keldra
