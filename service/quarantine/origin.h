#pragma once

#include "service/base/files.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace keldra {

/// Where an item came from: its folder, opened without following any symbolic link, and its name there.
struct Origin {
    FileDescriptor folder;
    std::string name;
    int error = 0;  ///< errno of what failed; ELOOP: a part of the path is a symbolic link
};

/// `path`: absolute, of any length.
Origin originOf(const std::string& path);

/// The status of a name in a folder; false with errno set.
bool statusOf(int folder, const std::string& name, struct stat& status);

/// Whether a name in a folder is a regular file with this number.
bool hasInode(int folder, const std::string& name, uint64_t inode);

/// Opens a file of a folder for reading; no link is followed and no pipe waited for.
FileDescriptor openExisting(int folder, const std::string& name);

/// Makes a file that nobody but the service may use. None, with errno set, when the name is taken.
FileDescriptor createNew(int folder, const std::string& name);

/// How what lies under a name compares with a content.
enum class Content { SAME, OTHER, UNKNOWN };
Content contentOf(int folder, const std::string& name, const std::string& sha256, uint64_t size);

/// Why a file could not be changed in its place: that it or its folder is marked immutable where that is so, else the
/// system's text for the error. `file` and `folder` may be -1.
std::string explainChange(int error, int file, int folder);

}  // namespace keldra
