#pragma once

#include "service/base/files.h"

#include <dirent.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace keldra {

/// A worker's own folder for what it unpacks. The owner of this empties it; the worker fills it.
class UnpackFolder {
public:
    /// Makes `parent`/`name` for that user, and what is missing above it. Not usable, with errno set, when that fails.
    UnpackFolder(const std::string& parent, const std::string& name, uid_t user, gid_t group);
    /// Removes it with all it holds.
    ~UnpackFolder();
    UnpackFolder(const UnpackFolder&) = delete;
    UnpackFolder& operator=(const UnpackFolder&) = delete;

    /// Whether it can be used, and nobody has removed it.
    bool usable() const;
    int descriptor() const { return folder_.get(); }
    /// Removes what a scan left in it.
    void empty();
    /// Bytes on disk of what it holds.
    uint64_t size() const;

private:
    timespec lastChange() const;

    const std::string path_;
    FileDescriptor folder_;
    std::unique_ptr<DIR, int (*)(DIR*)> entries_{nullptr, ::closedir};
    /// The folder's last change before it was found empty, if that was so long before that any later one shows; else 0.
    timespec emptySince_{};
};

}  // namespace keldra
