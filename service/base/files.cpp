#include "service/base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <memory>
#include <system_error>

namespace keldra {

namespace {

/// Of temporary files; the X are replaced.
constexpr const char* TEMPORARY_SUFFIX = ".new-XXXXXX";
constexpr std::chrono::hours UNFINISHED_AGE{1};

bool isTemporaryName(std::string_view name) {
    const std::string_view suffix = TEMPORARY_SUFFIX;
    const std::string_view fixed = suffix.substr(0, suffix.find('X'));
    return name.size() > suffix.size() && name.substr(name.size() - suffix.size()).starts_with(fixed);
}

bool setModified(int descriptor, std::int64_t modified) {
    timespec stamp{};
    stamp.tv_sec = static_cast<time_t>(modified);
    const std::array<timespec, 2> times{stamp, stamp};
    return ::futimens(descriptor, times.data()) == 0;
}

bool fill(int descriptor, std::string_view content, mode_t mode, std::optional<std::int64_t> modified) {
    return ::fchmod(descriptor, mode) == 0 && writeAll(descriptor, content) &&
           (!modified || setModified(descriptor, *modified)) && ::fsync(descriptor) == 0;
}

std::filesystem::path folderOf(const std::filesystem::path& path) {
    return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
}

/// A file that is replaced keeps owner and group; a new one made by root belongs to the owner of its folder, so that
/// what an administrator sets can be read by a service that runs as another user.
void setOwner(int descriptor, const std::filesystem::path& path) {
    struct stat model {};
    const bool replaces = ::stat(path.c_str(), &model) == 0;
    if (!replaces && (::geteuid() != 0 || ::stat(folderOf(path).c_str(), &model) != 0)) return;
    if (::fchown(descriptor, model.st_uid, model.st_gid) == 0) return;
    // Who may not give the file away may still keep its group.
    static_cast<void>(::fchown(descriptor, static_cast<uid_t>(-1), model.st_gid) == 0);
}

bool syncFolderOf(const std::filesystem::path& path) {
    const FileDescriptor descriptor(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && ::fsync(descriptor.get()) == 0;
}

}  // namespace

WriteResult writeFileAtomically(const std::filesystem::path& path, std::string_view content, mode_t mode,
                                std::optional<std::int64_t> modified) {
    std::string temporary = path.string() + TEMPORARY_SUFFIX;
    const FileDescriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file) return {false, errno};
    setOwner(file.get(), path);
    if (!fill(file.get(), content, mode, modified) || ::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        return {false, error};
    }
    // The new content stands already; a folder that cannot be synced is no reason to call it refused.
    syncFolderOf(path);
    return {true, 0};
}

void removeUnfinishedWrites(const std::filesystem::path& folder, std::string_view prefix) {
    const auto oldest = std::filesystem::file_time_type::clock::now() - UNFINISHED_AGE;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::error_code unknown;
        if (!isTemporaryName(name) || !name.starts_with(prefix)) continue;
        const bool plain = std::filesystem::is_regular_file(entry->symlink_status(unknown));
        if (plain && entry->last_write_time(unknown) < oldest && !unknown) ::unlink(entry->path().c_str());
    }
}

std::optional<std::vector<std::string>> namesIn(const std::filesystem::path& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(folder.c_str()), ::closedir);
    if (!entries) return std::nullopt;
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* const entry = ::readdir(entries.get())) {
        const std::string_view name = &entry->d_name[0];
        if (name != "." && name != "..") names.emplace_back(name);
        errno = 0;
    }
    return errno == 0 ? std::optional(std::move(names)) : std::nullopt;
}

void removeTree(const std::filesystem::path& path) {
    constexpr int DESCRIPTORS = 16;
    const auto remove = [](const char* one, const struct stat*, int, FTW*) {
        ::remove(one);
        return 0;
    };
    ::nftw(path.c_str(), remove, DESCRIPTORS, FTW_DEPTH | FTW_PHYS);
}

std::optional<std::string> readFile(const std::filesystem::path& path, std::size_t limit, int& error) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) return error = errno, std::nullopt;
    if (!S_ISREG(status.st_mode)) return error = EINVAL, std::nullopt;

    std::string content;
    std::array<char, 16384> block{};
    for (;;) {
        const ssize_t count = ::read(file.get(), block.data(), block.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return error = errno, std::nullopt;
        if (count == 0) break;
        content.append(block.data(), static_cast<std::size_t>(count));
        if (content.size() > limit) return error = EFBIG, std::nullopt;
    }
    error = 0;
    return content;
}

std::string descriptorPath(int fd) {
    std::array<char, PATH_MAX> target{};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    return length > 0 && target[0] == '/' ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

FileDescriptor openPlainFolder(const std::string& path) {
    FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder || descriptorPath(folder.get()) == path) return folder;
    errno = ELOOP;
    return {};
}

bool canOpenMore(std::size_t count) {
    std::array<FileDescriptor, 64> files;
    return std::all_of(files.begin(), files.begin() + static_cast<std::ptrdiff_t>(std::min(count, files.size())),
                       [](FileDescriptor& file) {
                           file.reset(::open("/", O_PATH | O_CLOEXEC));
                           return static_cast<bool>(file);
                       });
}

std::string errorText(int error) { return std::generic_category().message(error); }

bool makeFolder(const std::filesystem::path& path, mode_t mode) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) return true;
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
    return ::mkdir(path.c_str(), mode) == 0 ? ::chmod(path.c_str(), mode) == 0
                                            : std::filesystem::is_directory(path, error);
}

}  // namespace keldra
