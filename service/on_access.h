#pragma once

#include "norv/scan_config.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// What the real-time scan watches and how it behaves.
struct OnAccessSettings {
    bool incoming = false;                ///< scan a file before it is opened and refuse what is infected
    bool outgoing = false;                ///< scan a file after it was written
    std::vector<std::string> folders;     ///< watched, with all below them; those that do not exist, once they do
    std::vector<std::string> neverScan;   ///< left out, with all below them; symbolic links in them are not followed
    std::vector<std::string> ownFolders;  ///< the service's, left out as well, wherever links lead them
    std::chrono::milliseconds timeLimit{10000};  ///< how long whoever opens a file may wait for its scan
    bool denyOnTimeout = false;                  ///< what happens then: refuse, else allow and log
    unsigned workers = 2;                        ///< files scanned at a time that somebody waits for
    std::size_t queueLimit = 256;  ///< files waiting at most; beyond that the time-out's answer is given at once

    bool operator==(const OnAccessSettings&) const = default;
};

/// The settings that a record asks for; the service adds its own folders.
OnAccessSettings onAccessSettings(const NORVRealtimeScanConfig& record);

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
