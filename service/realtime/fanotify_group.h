#pragma once

#include "service/base/files.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <stop_token>
#include <string>
#include <utility>

namespace keldra {

/// A group of the kernel's file access events. Once closed, all accesses that wait for it go on. May be used from
/// several threads.
class FanotifyGroup {
public:
    /// False with errno set.
    bool open();
    void close();
    /// For the one thread that reads, which is gone when the group is closed.
    int get() const { return fd_.get(); }
    /// The arguments are those of fanotify_mark(2). False with errno set.
    bool mark(unsigned flags, std::uint64_t mask, int directory, const char* path);
    /// Lets the access of an event go on, or refuses it.
    void answer(int fd, bool deny);

    /// Why the kernel does not let this process watch file accesses; empty when it does.
    static std::string refusal();

private:
    std::shared_mutex mutex_;  ///< shared but for the descriptor itself: a mark may wait for a folder's server
    FileDescriptor fd_;
};

/// A file's device and number.
using FileIdentity = std::pair<std::uint64_t, std::uint64_t>;

/// What the kernel remembers of an open file, asked for without waiting for the server or program behind a file system;
/// a size may then be out of date.
struct FileGlance {
    FileIdentity identity;
    std::uint64_t size = 0;
    bool mayHoldSomething = false;  ///< a regular file, and not surely empty
};
FileGlance glanceAt(int fd);

/// One file access under way. Whoever opens the file waits until it is answered, at the latest when this object goes.
class FileAccess {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// `file`, `path`: the event's descriptor and the kernel's name for it. `waiting`: whether an answer is waited for,
    /// at most until `deadline`.
    FileAccess(std::shared_ptr<FanotifyGroup> group, FileDescriptor file, std::string path, bool waiting, Time deadline)
        : group_(std::move(group)),
          file_(std::move(file)),
          path_(std::move(path)),
          glance_(glanceAt(file_.get())),
          deadline_(deadline),
          open_(waiting) {}
    ~FileAccess() { answer(false); }
    FileAccess(const FileAccess&) = delete;
    FileAccess& operator=(const FileAccess&) = delete;

    int fd() const { return file_.get(); }
    const std::string& path() const { return path_; }
    const FileGlance& glance() const { return glance_; }
    Time deadline() const { return deadline_; }
    bool waiting() const { return open_; }
    /// True when it was this call that answered.
    bool answer(bool deny);
    /// For a scan whose answer nobody waits for any more, so that it makes room.
    std::stop_source& scanStop() { return scanStop_; }
    bool overdue() const { return scanStop_.stop_requested(); }

private:
    const std::shared_ptr<FanotifyGroup> group_;
    const FileDescriptor file_;
    const std::string path_;
    const FileGlance glance_;
    const Time deadline_;
    std::atomic<bool> open_;
    std::stop_source scanStop_;
};

}  // namespace keldra
