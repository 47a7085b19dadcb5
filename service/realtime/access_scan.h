#pragma once

#include "service/realtime/file_access.h"
#include "service/realtime/recent_finds.h"
#include "service/realtime/watched_places.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace keldra {

/// What a scan of one file says.
struct OnAccessAnswer {
    bool deny = false;       ///< refuse the access
    bool act = false;        ///< call the action hook for it, after the access is answered
    bool cacheable = false;  ///< clean: need not be asked about again until it is written to
    std::string find;        ///< for the action hook and the log
    std::string unscanned;   ///< why nothing could be found out; the access is answered like one that takes too long
};

/// Called from several threads at once; the descriptor is open for reading, stays the listener's and may be read from
/// and sought in. Nothing that these do can deadlock: the service's own accesses are never scanned.
struct OnAccessHooks {
    /// A stop is asked for when the scan takes too long or the listener ends; then the answer does not matter any more.
    std::function<OnAccessAnswer(int fd, const std::string& path, std::stop_token stop)> scan;
    std::function<void(int fd, const std::string& path, const OnAccessAnswer& answer)> act;
    /// Scans what was found a moment ago, whatever the settings leave out: only what is surely clean now is not denied.
    /// May be empty; then it is scanned like any other file.
    std::function<OnAccessAnswer(int fd, const std::string& path, std::stop_token stop)> scanFound = {};
    /// Whether a process is one of the service's own, beside this one. Must not wait for anything. May be empty.
    std::function<bool(pid_t pid)> own = {};
};

/// What is done about one access: whether the file lies in what is watched, its scan, and what follows from it. May be
/// used from several threads.
class AccessScan {
public:
    using CurrentPlaces = std::function<std::shared_ptr<const Places>()>;
    enum class Outcome {
        DONE,
        STOPPED,   ///< before anything could be said about the file
        UNSCANNED  ///< for the reason in `why`
    };

    /// `finds`: those of all tasks. `remembers`: whether the kernel is told what need not be asked about again.
    AccessScan(std::shared_ptr<const OnAccessHooks> hooks, CurrentPlaces places, std::shared_ptr<RecentFinds> finds,
               bool remembers);

    /// False for what plainly lies outside. Waits for nothing.
    bool mayConcern(const FileAccess& access) const;
    /// Whether the service itself accesses files in this process.
    bool isOwn(pid_t pid) const { return pid == ::getpid() || (hooks_->own && hooks_->own(pid)); }
    /// Answers whoever waits, but for what could not be scanned. Waits for the file's file system.
    Outcome scan(const FileAccess& access, const std::stop_token& stop, std::string& why);
    /// What is being scanned is not remembered any more; to be called before the kernel forgets what was clean.
    void forget() { ++generation_; }
    /// No actions follow from here on.
    void end() { ended_ = true; }

private:
    std::optional<std::string> pathToScan(const FileAccess& access) const;
    std::optional<std::string> foundBefore(const FileAccess& access, const Places& where) const;
    bool refuseActedOn(const FileAccess& access) const;
    Outcome scanMoved(const FileAccess& access, const std::string& path, const std::stop_token& stop);
    void remember(const FileAccess& access, const struct stat& before, unsigned generation);
    Outcome follow(const FileAccess& access, const std::string& path, const OnAccessAnswer& answer);

    const std::shared_ptr<const OnAccessHooks> hooks_;
    const CurrentPlaces places_;
    const std::shared_ptr<RecentFinds> finds_;
    std::atomic<bool> remembers_;
    std::atomic<bool> ended_{false};
    std::atomic<unsigned> generation_{0};
};

}  // namespace keldra
