#pragma once

#include "norv/file_descriptor.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

using ::FileDescriptor;
using ::writeAll;

/// What became of a file that was to be replaced.
struct WriteResult {
    bool written = false;
    int error = 0;  ///< errno of the step that failed
    explicit operator bool() const { return written; }
};

/// Replaces a file's content as one step: a temporary file beside it is written, synced to disk and renamed over it,
/// then its folder is synced. After a failure or a crash at any moment the old content stands. `mode`: permission bits,
/// independent of the umask. `modified`: the file's modification time, seconds since the epoch.
WriteResult writeFileAtomically(const std::filesystem::path& path, std::string_view content, mode_t mode,
                                std::optional<std::int64_t> modified = std::nullopt);

/// Removes what crashes left of `writeFileAtomically` in a folder: its temporary files that are older than an hour, so
/// that nothing that is just being written is touched. `prefix`: only files whose names begin so.
void removeUnfinishedWrites(const std::filesystem::path& folder, std::string_view prefix = {});

/// The names in a folder, in no order. Nothing, with errno set, when not all of it can be read. To be used wherever the
/// service runs: an iterator of std::filesystem ends the process when there is no memory for it.
std::optional<std::vector<std::string>> namesIn(const std::filesystem::path& folder);

/// Removes a file, or a folder with all that is in it, as far as that goes.
void removeTree(const std::filesystem::path& path);

/// Reads a whole regular file of at most `limit` bytes. Nothing when it cannot be opened, is not a regular file or is
/// longer; `error` then holds an errno (EFBIG when longer).
std::optional<std::string> readFile(const std::filesystem::path& path, std::size_t limit, int& error);

/// The kernel's name for an open file, without symbolic links; empty when it cannot tell it (longer than a page). That
/// of a file which was deleted ends in " (deleted)", but so may the name of one that was not.
std::string descriptorPath(int fd);

/// A folder (O_PATH) that its path leads to without any symbolic link; none, with errno set (ELOOP for a link),
/// otherwise. `path`: absolute, without "." and "..".
FileDescriptor openPlainFolder(const std::string& path);

/// Whether so many files more can be opened at this moment; 64 at most.
bool canOpenMore(std::size_t count);

/// The system's text for an errno.
std::string errorText(int error);

/// Makes a folder (and what is missing above it) with these permission bits. True when it is there afterwards.
bool makeFolder(const std::filesystem::path& path, mode_t mode);

}  // namespace keldra
