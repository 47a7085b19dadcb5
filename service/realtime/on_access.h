#pragma once

#include "service/realtime/access_scan.h"
#include "service/realtime/loose_threads.h"
#include "service/realtime/on_access_settings.h"

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

class AccessListener;

/// How the listening goes.
struct OnAccessStatus {
    bool running = false;
    bool exhausted = false;                ///< so many files hang that no other can be scanned
    unsigned hanging = 0;                  ///< files whose file system does not answer
    std::array<std::size_t, 3> waiting{};  ///< accesses that wait for their scan, by lane
    std::string problem;                   ///< English, empty when all is well
};

/// The real-time scan: listens to the kernel's file access events (fanotify) for whole file systems and scans what lies
/// in the watched folders. Fails open: when the listener ends, in whatever way, all waiting accesses are allowed. May
/// be used from several threads.
class OnAccess {
public:
    explicit OnAccess(OnAccessHooks hooks);
    ~OnAccess();
    OnAccess(const OnAccess&) = delete;
    OnAccess& operator=(const OnAccess&) = delete;

    /// Whether the kernel offers permission events and lets this process have them. `reason`, when given, is set to
    /// English words otherwise.
    static bool kernelAllows(std::string* reason = nullptr);

    /// Listens with these settings; restarts when they differ from those before, without letting anything through in
    /// between; ends when neither direction is set. Does not wait for what hangs.
    /// Returns whether the listener runs as wished; `problem()` tells why not. While none of the folders exists it is
    /// not running, but begins by itself when one does.
    bool configure(const OnAccessSettings& settings);
    /// True when all threads have ended, or end within a second. One that hangs in the kernel is left behind, and goes
    /// on to use the hooks should it ever come back.
    bool stop();

    OnAccessStatus status() const;
    bool running() const { return status().running; }
    std::string problem() const { return status().problem; }
    /// False when accesses are not being seen to any more, so that whoever opens a file may wait for ever.
    bool working() const;
    /// Drops what is remembered as clean: call it when the signatures or the settings of the scan changed.
    void forgetClean();
    /// Something was found in an open file, and it is about to be put away or removed: nobody else opens it as long as
    /// the returned object lives, and for a while after that what it became is looked at wherever it lies. `path`:
    /// where it was found.
    std::shared_ptr<void> beginAction(int fd, const std::string& path);

private:
    void replace(std::shared_ptr<AccessListener> listener, std::string problem);
    std::shared_ptr<AccessListener> listener() const;

    const std::shared_ptr<const OnAccessHooks> hooks_;
    const std::shared_ptr<RecentFinds> finds_ = std::make_shared<RecentFinds>();
    std::mutex configureMutex_;
    OnAccessSettings settings_;  ///< under configureMutex_, as is the next
    std::vector<LooseThreads> leftBehind_;
    mutable std::mutex mutex_;
    std::shared_ptr<AccessListener> listener_;
    std::string problem_;
};

}  // namespace keldra
