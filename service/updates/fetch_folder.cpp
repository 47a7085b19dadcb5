#include "service/updates/fetch_folder.h"

#include "service/base/child_process.h"
#include "service/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace keldra {

namespace {

bool isPlain(const std::filesystem::directory_entry& entry) {
    std::error_code error;
    return std::filesystem::is_regular_file(entry.symlink_status(error));
}

bool syncPath(const std::filesystem::path& path, int flags) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | flags));
    return file && ::fsync(file.get()) == 0;
}

}  // namespace

FetchFolder::FetchFolder(const std::filesystem::path& databases) : databases_(databases), path_(databases / NAME) {}

FetchFolder::~FetchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

bool FetchFolder::make(const Identity* owner) {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
    if (!makeFolder(path_, 0755)) return false;
    if (owner && ::lchown(path_.c_str(), owner->user, owner->group) != 0) return false;
    for (std::filesystem::directory_iterator entry(databases_, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (!isPlain(*entry)) continue;
        if (::symlink(("../" + name).c_str(), (path_ / name).c_str()) != 0) return false;
        linked_.insert(name);
    }
    if (error) errno = error.value();
    return !error;
}

bool FetchFolder::adopt() const {
    std::set<std::string> gone = linked_;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(path_, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        gone.erase(name);
        if (!isPlain(*entry)) continue;
        if (!syncPath(entry->path(), 0) || ::rename(entry->path().c_str(), (databases_ / name).c_str()) != 0)
            return false;
    }
    if (error) errno = error.value();
    if (error || !syncPath(databases_, O_DIRECTORY)) return false;
    for (const std::string& name : gone)
        if (::unlink((databases_ / name).c_str()) != 0 && errno != ENOENT) return false;
    return gone.empty() || syncPath(databases_, O_DIRECTORY);
}

}  // namespace keldra
