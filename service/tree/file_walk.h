#pragma once

#include "service/tree/scanned_file.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// Where a walk goes.
struct WalkPlan {
    std::vector<std::string> roots;  ///< folders or single files, absolute
    /// On the way from one of these to a root no symbolic link is followed: their users could lead the walk elsewhere.
    std::vector<std::string> shareRoots;
    /// Left out with all below them. A symbolic link in such a path does not count: who may put one into a share would
    /// choose what is left out.
    std::vector<std::string> excludeFolders;
    std::vector<std::string> ownFolders;                  ///< left out as well, wherever links lead them
    std::vector<std::string> excludePatterns;             ///< shell patterns that a whole file name is matched against
    std::function<bool(const std::string& name)> wanted;  ///< by name; empty: every file
    std::chrono::steady_clock::time_point until = std::chrono::steady_clock::time_point::max();  ///< ends there
};

/// A file that a walk came to.
struct FoundFile {
    std::shared_ptr<const FileDescriptor> folder;
    std::string name;  ///< in that folder
    std::string path;
};

/// Goes through the wanted regular files of a plan. Symbolic links are not followed, neither below a root nor as a
/// root; devices, pipes and sockets are passed over; the kernel's own file systems (such as /proc) are left out. What
/// lies under two roots is visited once. May be used by several threads at once: each file comes to one of them.
class FileWalk {
public:
    /// Called for everything that cannot be opened or read, with the reason in words; from whichever thread asks for
    /// the next file.
    using Skipped = std::function<void(const std::string& path, const std::string& reason)>;

    /// `plan` must outlive the walk.
    FileWalk(const WalkPlan& plan, Skipped skipped);
    ~FileWalk();
    FileWalk(const FileWalk&) = delete;
    FileWalk& operator=(const FileWalk&) = delete;

    /// The next file; nothing when there is none any more or a stop was asked for.
    std::optional<FoundFile> next(const std::stop_token& stop);
    /// Whether a regular file of an open folder can be passed over without being opened.
    using Known = std::function<bool(int folder, const struct stat& status)>;

    /// The next one that can be opened, opened for reading; what is `known` is passed over.
    std::optional<ScannedFile> nextOpened(const std::stop_token& stop, const Known& known = {});

private:
    class State;

    const Skipped skipped_;
    std::mutex mutex_;
    std::unique_ptr<State> state_;
};

/// Counts what a walk would visit or skip, without opening files: `found` is called for each of them, with nothing for
/// what is skipped. Returns when all is done or a stop was asked for.
void countFiles(const WalkPlan& plan, const std::function<void(const FoundFile* file)>& found,
                const std::stop_token& stop);

}  // namespace keldra
