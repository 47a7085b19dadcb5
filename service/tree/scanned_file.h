#pragma once

#include "service/base/files.h"

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>

namespace keldra {

/// An open regular file and where it was found. Whatever is done to it later goes by the two descriptors and the
/// identity in `status`; the path is for people to read.
struct ScannedFile {
    FileDescriptor file;                           ///< open for reading
    std::shared_ptr<const FileDescriptor> folder;  ///< the folder that held it
    std::string name;                              ///< its name in that folder
    std::string path;                              ///< the whole path as it was reached
    struct stat status {};                         ///< taken from `file`

    /// Whether `folder` still shows this very file under `name`.
    bool stillThere() const;
    /// The kernel's name for where it is, without symbolic links; `path` when that cannot be told.
    std::string realPath() const;
};

/// The same for a file that is open already, such as that of an access event, and its path, which is verified. The
/// descriptor is duplicated. Nothing when the file is not there (any more) or is no regular file.
std::optional<ScannedFile> scannedFileAt(int fd, const std::string& path);

/// Opens a regular file of an open folder for reading, without following a symbolic link, without waiting for a pipe or
/// device and, where the owner allows it, without touching its access time. `path` is only noted. Nothing, with errno
/// set (EINVAL when it is not a regular file), when that fails.
std::optional<ScannedFile> openInFolder(std::shared_ptr<const FileDescriptor> folder, const std::string& name,
                                        const std::string& path);

}  // namespace keldra
