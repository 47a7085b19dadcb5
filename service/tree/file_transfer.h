#pragma once

#include "service/tree/scanned_file.h"

#include <cstdint>
#include <string>

namespace keldra {

/// SHA-256 of an open file from its beginning, lower-case hexadecimal; empty, with errno set, when it cannot be read.
/// `most`: bytes; a file that has more, perhaps because somebody makes it longer meanwhile, is EFBIG.
std::string sha256Of(int fd, std::uint64_t most = UINT64_MAX);

/// Copies an open file from its beginning to the end of another and syncs that to disk. Returns the SHA-256 of what was
/// copied; empty, with errno set, on failure. `most`: as above.
std::string copyContent(int from, int to, std::uint64_t most);

/// Syncs a folder to disk, also one that was only opened as a place (O_PATH). False with errno set.
bool syncFolder(int folder);

/// Renames within or between folders of one file system without ever replacing anything. False with errno set (EEXIST
/// when the new name is taken, EXDEV between file systems).
bool renameNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to);

/// Renames the very file that `file` holds open into `toFolder`. When its name leads to another file by now, that other
/// file keeps its name, nothing is done, and errno is ENOENT.
bool renameExactly(const ScannedFile& file, int toFolder, const std::string& to);

/// Removes the very file that `file` holds open from its folder. When its name leads to another file by now, nothing is
/// removed and errno is ENOENT. `passing`: a name that is free in that folder; the file bears it for a moment.
/// On failure it has its own name again.
bool removeExactly(const ScannedFile& file, const std::string& passing);

/// 32 random hexadecimal digits; empty when the kernel gives none.
std::string randomName();

}  // namespace keldra
