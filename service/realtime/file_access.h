#pragma once

#include "service/base/files.h"
#include "service/realtime/fanotify_group.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace keldra {

using SteadyTime = std::chrono::steady_clock::time_point;

/// A file's device and number.
using FileIdentity = std::pair<std::uint64_t, std::uint64_t>;

/// What the kernel remembers of an open file, asked for without waiting for the server or program behind a file system;
/// a size may then be out of date.
struct FileGlance {
    FileIdentity identity;
    std::uint64_t size = 0;
    uid_t owner = 0;
    bool mayHoldSomething = false;  ///< a regular file, and not surely empty
};
FileGlance glanceAt(int fd);

/// Whoever a file is opened for: the user of the process; where that is the system itself, such as a file server on
/// behalf of its clients, the file's owner.
uid_t userOf(pid_t process, uid_t owner);

/// Somebody who waits to open a file. Does not hold the file, so that answering never waits for its file system. May be
/// used from several threads.
class WaitingOpener {
public:
    /// `fd`: the event's descriptor, open until the opener is answered. `deadline`: when he has waited long enough.
    WaitingOpener(std::shared_ptr<const FanotifyGroup> group, int fd, std::string path, SteadyTime deadline)
        : group_(std::move(group)), fd_(fd), path_(std::move(path)), deadline_(deadline) {}
    WaitingOpener(const WaitingOpener&) = delete;
    WaitingOpener& operator=(const WaitingOpener&) = delete;

    /// True when it was this call that answered.
    bool answer(bool deny);
    bool waiting() const { return open_; }
    const std::string& path() const { return path_; }
    SteadyTime deadline() const { return deadline_; }

private:
    const std::shared_ptr<const FanotifyGroup> group_;
    const int fd_;
    const std::string path_;
    const SteadyTime deadline_;
    std::mutex mutex_;  ///< held until the kernel has the answer, since the descriptor may be closed then
    std::atomic<bool> open_{true};
};

/// All who wait, in the order of their deadlines. May be used from several threads.
class WaitingOpeners {
public:
    void add(std::shared_ptr<WaitingOpener> opener);
    /// Takes out those whose deadline has come and who are not answered yet.
    std::vector<std::shared_ptr<WaitingOpener>> takeOverdue(SteadyTime now);

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<WaitingOpener>> all_;
    std::size_t tidyAt_ = 1024;  ///< how many there may be before those who were answered are dropped
};

/// One file access under way. Whoever opens the file waits until he is answered, at the latest when this object goes,
/// which may wait for the file's file system.
class FileAccess {
public:
    /// `file`, `path`: the event's descriptor and the kernel's name for it. `opener`: who waits for an answer, if
    /// anybody does. `remote`: the file lies where another machine or program answers for it.
    FileAccess(std::shared_ptr<const FanotifyGroup> group, FileDescriptor file, std::string path, bool remote)
        : group_(std::move(group)),
          file_(std::move(file)),
          path_(std::move(path)),
          glance_(glanceAt(file_.get())),
          remote_(remote) {}
    ~FileAccess() {
        if (opener_) opener_->answer(false);
    }
    FileAccess(const FileAccess&) = delete;
    FileAccess& operator=(const FileAccess&) = delete;

    /// Before anybody else knows of the access: somebody waits, on behalf of `user`.
    void setOpener(std::shared_ptr<WaitingOpener> opener) { opener_ = std::move(opener); }
    void setUser(uid_t user) { user_ = user; }

    const FanotifyGroup& group() const { return *group_; }
    int fd() const { return file_.get(); }
    const std::string& path() const { return path_; }
    const FileGlance& glance() const { return glance_; }
    bool remote() const { return remote_; }
    uid_t user() const { return user_; }
    bool waiting() const { return opener_ && opener_->waiting(); }
    /// Null when nobody ever waited.
    const std::shared_ptr<WaitingOpener>& opener() const { return opener_; }
    bool answer(bool deny) const { return opener_ && opener_->answer(deny); }

private:
    const std::shared_ptr<const FanotifyGroup> group_;
    const FileDescriptor file_;
    const std::string path_;
    const FileGlance glance_;
    const bool remote_;
    uid_t user_ = 0;
    std::shared_ptr<WaitingOpener> opener_;
};

}  // namespace keldra
