#pragma once

#include "service/realtime/on_access_settings.h"

#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// What a scan of one file says.
struct OnAccessAnswer {
    bool deny = false;       ///< refuse the access
    bool act = false;        ///< call the action hook for it, after the access is answered
    bool cacheable = false;  ///< clean: need not be asked about again until it is written to
    std::string find;        ///< for the action hook and the log
};

/// Called from several threads at once; the descriptor is open for reading, stays the listener's and may be read from
/// and sought in. Nothing that these do can deadlock: the service's own accesses are never scanned.
struct OnAccessHooks {
    /// A stop is asked for when the listener ends; then the answer does not matter any more.
    std::function<OnAccessAnswer(int fd, const std::string& path, std::stop_token stop)> scan;
    std::function<void(int fd, const std::string& path, const OnAccessAnswer& answer)> act;
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

    /// Listens with these settings; restarts when they differ from those before, ends when neither direction is set.
    /// Returns whether the listener runs as wished; `problem()` tells why not. While none of the folders exists it is
    /// not running, but begins by itself when one does.
    bool configure(const OnAccessSettings& settings);
    void stop();

    bool running() const;
    /// English, empty when all is well.
    std::string problem() const;
    /// Drops what is remembered as clean: call it when the signatures or the settings of the scan changed.
    void forgetClean();

private:
    class Listener;

    void replace(std::shared_ptr<Listener> listener, std::string problem);
    std::shared_ptr<Listener> listener() const;

    const OnAccessHooks hooks_;
    std::mutex configureMutex_;
    OnAccessSettings settings_;  ///< under configureMutex_
    mutable std::mutex mutex_;
    std::shared_ptr<Listener> listener_;
    std::string problem_;
};

}  // namespace keldra
