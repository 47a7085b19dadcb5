#pragma once

#include "service/realtime/file_access.h"

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace keldra {

/// Files in which something was found a moment ago, by whatever task. Who had looked the name up before such a file was
/// put away opens it at its new place, where nobody looks otherwise. May be used from several threads.
class RecentFinds {
public:
    /// `path`: where it was found.
    void add(const FileIdentity& file, std::string path);
    /// Where it was found; nothing when nothing was lately.
    std::optional<std::string> pathOf(const FileIdentity& file) const;

    /// The same, and that something is being done about it, for as long as the returned object lives.
    static std::shared_ptr<void> beginAction(const std::shared_ptr<RecentFinds>& finds, const FileIdentity& file,
                                             std::string path);
    bool isActedOn(const FileIdentity& file) const;

private:
    struct Find {
        std::string path;
        SteadyTime until;
        unsigned actions = 0;  ///< under way
    };

    void endAction(const FileIdentity& file);
    void dropOld();

    mutable std::mutex mutex_;
    std::map<FileIdentity, Find> finds_;
    std::atomic<bool> any_{false};  ///< so that every other access costs nothing
};

}  // namespace keldra
