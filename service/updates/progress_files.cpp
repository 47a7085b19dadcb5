#include "service/updates/progress_files.h"

#include "norv/log.h"
#include "service/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

namespace keldra {

namespace {

constexpr std::string_view PREFIX = "progress_";
constexpr std::string_view SUFFIX = ".txt";
constexpr std::size_t LONGEST_ID = 241;
/// Kept whatever their age, which a wrong clock would tell wrong.
constexpr std::size_t NEWEST_KEPT = 3;

struct Found {
    int64_t modified = 0;
    std::filesystem::path path;
};

std::string nameOf(const std::string& id) { return std::string(PREFIX) + id + std::string(SUFFIX); }

/// The temporary names of `write`.
std::string temporaryOf(const std::string& id) { return "." + std::string(PREFIX) + id + ".tmp"; }

/// All progress files and what a crash left of their writing. Links are looked at themselves, not what they lead to.
std::vector<Found> listFiles(const std::filesystem::path& folder) {
    std::vector<Found> found;
    for (const std::string& name : namesIn(folder).value_or(std::vector<std::string>())) {
        const std::filesystem::path path = folder / name;
        struct stat status {};
        if (!name.starts_with(PREFIX) && !name.starts_with("." + std::string(PREFIX))) continue;
        if (lstat(path.c_str(), &status) != 0 || S_ISDIR(status.st_mode)) continue;
        found.push_back({status.st_mtim.tv_sec, path});
    }
    return found;
}

/// Whether a file's text says how far an update is, short of its end.
bool isUnfinished(std::string_view text) { return text.size() == 1 && text[0] >= '0' && text[0] <= '9'; }

bool writeWhole(int fd, std::string_view text) {
    return ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

bool isUpdateId(std::string_view id) {
    const auto legal = [](char c) { return (c >= '0' && c <= '9') || c == '_'; };
    return !id.empty() && id.size() <= LONGEST_ID && std::ranges::all_of(id, legal);
}

/// Not synced to disk: after a crash of the machine nobody follows the update any more.
void ProgressFiles::write(const std::string& id, std::string_view text) const {
    const std::filesystem::path folder = folder_();
    const std::filesystem::path temporary = folder / temporaryOf(id);
    const std::filesystem::path file = folder / nameOf(id);
    unlink(temporary.c_str());
    const FileDescriptor descriptor(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0660));
    const bool written = descriptor && fchmod(descriptor.get(), 0660) == 0 && writeWhole(descriptor.get(), text) &&
                         rename(temporary.c_str(), file.c_str()) == 0;
    if (written) return;
    NORV_LOG(NORV_LOG_ERROR, "Cannot write %s: %s", file.c_str(), errorText(errno).c_str());
    unlink(temporary.c_str());
}

void ProgressFiles::close(std::string_view text) const {
    for (const Found& file : listFiles(folder_())) {
        const std::string name = file.path.filename();
        int error = 0;
        const auto content = readFile(file.path, 4096, error);
        if (!content || !isUnfinished(*content) || !name.starts_with(PREFIX) || !name.ends_with(SUFFIX)) continue;
        const std::string id = name.substr(PREFIX.size(), name.size() - PREFIX.size() - SUFFIX.size());
        if (isUpdateId(id)) write(id, text);
    }
}

void ProgressFiles::cleanUp(int64_t oldest, std::size_t count, const std::string& keep) const {
    std::vector<Found> files = listFiles(folder_());
    std::ranges::sort(files, [](const Found& a, const Found& b) { return a.modified > b.modified; });
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string name = files[i].path.filename();
        const bool inUse = !keep.empty() && (name == nameOf(keep) || name == temporaryOf(keep));
        const bool old = files[i].modified < oldest && i >= NEWEST_KEPT;
        if (!inUse && (i >= count || old)) unlink(files[i].path.c_str());
    }
}

}  // namespace keldra
