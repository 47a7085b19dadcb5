#pragma once

#include "norv/norv_config.h"
#include "service/engine/scan_engine.h"
#include "service/quarantine/actions.h"
#include "service/realtime/on_access.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// Whether the real-time scan works.
struct RealtimeState {
    bool running = false;       ///< the listener runs
    bool kernelAllows = false;  ///< the kernel offers what it needs, and to this process
    std::string problem;        ///< English, empty when all is well
};

/// The real-time scan's policy: what the stored settings mean for a file that is opened or was written.
class RealtimeScan {
public:
    /// `ownFolders`: the service's, never scanned.
    RealtimeScan(ScanEngine& engine, Actions& actions, std::vector<std::string> ownFolders);

    /// Acts by these settings from here on.
    void configure(const NORVConfig& config);
    /// To be called when the signatures changed.
    void forgetClean() { listener_.forgetClean(); }
    void stop() { listener_.stop(); }
    RealtimeState state() const;

private:
    struct Policy;

    std::shared_ptr<const Policy> policy() const;
    OnAccessAnswer scan(int fd, const std::string& path, std::stop_token stop);
    void act(int fd, const std::string& path, const OnAccessAnswer& answer);

    ScanEngine& engine_;
    Actions& actions_;
    const std::vector<std::string> ownFolders_;
    mutable std::mutex mutex_;
    std::shared_ptr<const Policy> policy_;
    OnAccess listener_;
};

}  // namespace keldra
