#pragma once

#include "service/realtime/file_access.h"

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace keldra {

/// Files in which something was found a moment ago. Who had looked the name up before such a file was put away opens it
/// at its new place, where nobody looks otherwise. May be used from several threads.
class RecentFinds {
public:
    /// `path`: where it was found.
    void add(const FileIdentity& file, std::string path);
    /// Where it was found; nothing when nothing was lately.
    std::optional<std::string> pathOf(const FileIdentity& file) const;

private:
    struct Find {
        std::string path;
        SteadyTime until;
    };

    void dropOld();

    mutable std::mutex mutex_;
    std::map<FileIdentity, Find> finds_;
    std::atomic<bool> any_{false};  ///< so that every other access costs nothing
};

}  // namespace keldra
