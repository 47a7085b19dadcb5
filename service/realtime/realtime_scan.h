#pragma once

#include "norv/norv_config.h"
#include "service/engine/scan_engine.h"
#include "service/quarantine/actions.h"
#include "service/realtime/on_access.h"

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace keldra {

/// How the real-time scan is doing.
struct RealtimeState {
    /// What keeps it from guarding although it is wanted.
    enum class Trouble {
        NONE,
        KERNEL,         ///< the kernel or this process's rights do not allow it
        LISTENER,       ///< no folder can be watched, or listening has failed
        LOADING,        ///< the signatures are still being loaded
        NO_SIGNATURES,  ///< there are none that can be used
        SCANNER,        ///< there is no scanner at work
        HANGING,        ///< too many files hang for any other to be scanned
    };

    bool wanted = false;    ///< the settings switch it on
    bool guarding = false;  ///< files in the watched folders are being scanned
    Trouble trouble = Trouble::NONE;
    bool kernelAllows = false;             ///< the kernel offers what it needs, and to this process
    unsigned hanging = 0;                  ///< files whose file system does not answer, and that were left aside
    std::array<std::size_t, 3> waiting{};  ///< accesses that wait for a quick scan, a slow one, and in the background
    std::string message;                   ///< English: what is wrong or worth knowing, empty when all is well

    /// What the console shows as the service running: only a real-time scan that is wanted can fail to.
    bool serviceRuns() const { return !wanted || guarding; }
};

/// Something that the real-time scan came upon.
struct RealtimeReport {
    std::string path;
    ScanResult result;      ///< INFECTED; else FAILED or NOT_FULLY_SCANNED, with the reason
    ActionOutcome outcome;  ///< what was done with a find
};

/// The real-time scan's policy: what the stored settings mean for a file that is opened or was written.
class RealtimeScan {
public:
    using Report = std::function<void(const RealtimeReport& report)>;

    /// `ownFolders`: the service's, never scanned. `report`: told what was found or failed, the same of one file no
    /// more than once in ten minutes, and of what is no find 200 in that time; called from several threads; may be
    /// empty.
    RealtimeScan(ScanEngine& engine, Actions& actions, std::vector<std::string> ownFolders, Report report = {});

    /// Acts by these settings from here on.
    void configure(const NORVConfig& config);
    /// To be called when the signatures changed.
    void forgetClean() { listener_.forgetClean(); }
    /// Some task has found something in an open file and is about to put it away: refuses to open it as long as the
    /// returned object lives.
    std::shared_ptr<void> beginAction(int fd, const std::string& path) { return listener_.beginAction(fd, path); }
    /// False when a thread hangs in the kernel and was left behind; what this object was given must outlive it.
    bool stop() { return listener_.stop(); }
    RealtimeState state() const;
    /// False when accesses are not being seen to any more, so that whoever opens a file may wait for ever.
    bool working() const { return listener_.working(); }

private:
    struct Policy;

    std::shared_ptr<const Policy> policy() const;
    OnAccessAnswer scan(int fd, const std::string& path, const std::stop_token& stop);
    OnAccessAnswer scanFound(int fd, const std::string& path, std::stop_token stop);
    void act(int fd, const std::string& path, const OnAccessAnswer& answer);
    void lookAtListener(RealtimeState& state) const;
    void lookAtEngine(RealtimeState& state) const;

    void tell(const RealtimeReport& report);

    ScanEngine& engine_;
    Actions& actions_;
    const Report report_;
    const std::vector<std::string> ownFolders_;
    mutable std::mutex mutex_;
    std::shared_ptr<const Policy> policy_;
    std::set<std::pair<dev_t, ino_t>> actedOn_;                          ///< files that an action is being done to
    std::map<std::string, std::chrono::steady_clock::time_point> told_;  ///< what, and when
    std::chrono::steady_clock::time_point unsureSince_;
    unsigned unsure_ = 0;  ///< told since then that are no finds
    OnAccess listener_;
};

}  // namespace keldra
