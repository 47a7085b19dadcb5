#include "service/settings/state_folder.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace keldra {

bool StateFolder::take(std::string& error) { return makeFolders(error) && lock(error); }

bool StateFolder::makeFolders(std::string& error) const {
    for (const auto& [folder, mode] :
         {std::pair{path_, mode_t{0700}}, {unpacking(), mode_t{0700}}, {signatures(), mode_t{0755}}}) {
        if (makeFolder(folder, mode)) continue;
        error = "Cannot make the folder " + folder.string() + ": " + errorText(errno) + ".";
        return false;
    }
    return true;
}

bool StateFolder::lock(std::string& error) {
    const auto file = path_ / "keldrad.lock";
    lock_ = FileDescriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    // A record lock, since it ends with this process; flock() would live on in a child that has not become freshclam
    // yet.
    struct flock whole {};
    whole.l_type = F_WRLCK;
    if (!lock_) {
        error = "Cannot open " + file.string() + ": " + errorText(errno) + ".";
    } else if (::fcntl(lock_.get(), F_SETLK, &whole) != 0) {
        const bool held = errno == EACCES || errno == EAGAIN;
        error = held ? "Another keldrad already works on " + path_.string() + "."
                     : "Cannot lock " + file.string() + ": " + errorText(errno) + ".";
    }
    return error.empty();
}

void StateFolder::unlock(int lockDescriptor) {
    struct flock whole {};
    whole.l_type = F_UNLCK;
    ::fcntl(lockDescriptor, F_SETLK, &whole);
}

void StateFolder::removeLeftovers() const {
    for (const auto& folder : {path_, history(), events()}) removeUnfinishedWrites(folder);
    std::error_code error;
    // A folder for unpacking that others may enter is not the one that was made here.
    const auto permissions = std::filesystem::symlink_status(unpacking(), error).permissions();
    if (permissions != std::filesystem::perms::owner_all) return;
    for (std::filesystem::directory_iterator entry(unpacking(), error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        std::filesystem::remove_all(entry->path(), ignored);
    }
}

}  // namespace keldra
