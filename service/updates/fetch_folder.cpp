#include "service/updates/fetch_folder.h"

#include "service/base/child_process.h"
#include "service/base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace keldra {

namespace {

bool isPlain(const std::filesystem::path& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool syncPath(const std::filesystem::path& path, int flags) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | flags));
    return file && ::fsync(file.get()) == 0;
}

}  // namespace

FetchFolder::FetchFolder(const std::filesystem::path& databases) : databases_(databases), path_(databases / NAME) {}

FetchFolder::~FetchFolder() { removeTree(path_); }

bool FetchFolder::make(const Identity* owner) {
    removeTree(path_);
    if (!makeFolder(path_, 0755)) return false;
    if (owner && ::lchown(path_.c_str(), owner->user, owner->group) != 0) return false;
    const auto names = namesIn(databases_);
    if (!names) return false;
    for (const std::string& name : *names) {
        if (!isPlain(databases_ / name)) continue;
        if (::symlink(("../" + name).c_str(), (path_ / name).c_str()) != 0) return false;
        linked_.insert(name);
    }
    return true;
}

bool FetchFolder::adopt() const {
    const auto names = namesIn(path_);
    if (!names) return false;
    std::set<std::string> gone = linked_;
    for (const std::string& name : *names) {
        gone.erase(name);
        const auto fetched = path_ / name;
        if (!isPlain(fetched)) continue;
        if (!syncPath(fetched, 0) || ::rename(fetched.c_str(), (databases_ / name).c_str()) != 0) return false;
    }
    if (!syncPath(databases_, O_DIRECTORY)) return false;
    for (const std::string& name : gone)
        if (::unlink((databases_ / name).c_str()) != 0 && errno != ENOENT) return false;
    return gone.empty() || syncPath(databases_, O_DIRECTORY);
}

}  // namespace keldra
