#pragma once

#include "service/base/files.h"
#include "service/realtime/loose_threads.h"
#include "service/realtime/watched_places.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// Follows where the watched folders are: those that come, go, lead elsewhere or have other file systems mounted in
/// them. A thread of its own does it, since each look may wait for a file system that does not answer.
class PlacesFollower : public std::enable_shared_from_this<PlacesFollower> {
public:
    /// Watches these file systems from now on. Returns how many of them; `report`: whether failures are new, and to be
    /// logged.
    using Mark = std::function<std::size_t(const std::vector<PlaceToMark>& places, bool report)>;

    PlacesFollower(const OnAccessSettings& settings, LooseThreads threads, Mark mark);

    /// `owner`: held by the thread. Returns after the first look, which is waited for for a second at most. False when
    /// there can be no thread.
    bool start(std::shared_ptr<void> owner);
    void end();
    std::shared_ptr<const Places> places() const;
    /// There is something that is watched.
    bool watching() const { return watching_; }
    /// English; empty when all folders could be looked for.
    std::string problem() const;

private:
    void follow();
    bool awaitChange();
    void lookGuarded(const OnAccessSettings& settings, bool mountsChanged);
    void look(const OnAccessSettings& settings, bool mountsChanged);

    const OnAccessSettings settings_;
    LooseThreads threads_;
    const Mark mark_;
    const FileDescriptor wake_;
    const FileDescriptor mountTable_;
    std::atomic<bool> ended_{false};
    std::atomic<bool> watching_{false};
    std::vector<Mount> mounts_;  ///< the thread's, as is the next
    bool marked_ = false;        ///< all of the places
    mutable std::mutex mutex_;
    std::condition_variable looked_;
    unsigned looks_ = 0;
    std::chrono::steady_clock::time_point lookingSince_ = std::chrono::steady_clock::time_point::max();
    std::shared_ptr<const Places> places_ = std::make_shared<const Places>();
};

}  // namespace keldra
