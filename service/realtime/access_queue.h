#pragma once

#include "service/realtime/fanotify_group.h"

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <set>

namespace keldra {

/// File accesses that wait for their scan, in two lanes: in one somebody waits for the answer; the other takes its time
/// over files that were written and over those whose scan took too long. May be used from any thread.
class AccessQueue {
public:
    enum class Lane { WAITED_FOR, BACKGROUND };
    using Item = std::shared_ptr<FileAccess>;

    /// `limit`: accesses a lane holds at most. `largeAtOnce`: large files of the first lane that may be scanned at a
    /// time, so that small ones need not wait for them.
    AccessQueue(std::size_t limit, unsigned largeAtOnce) : limit_(limit), largeAtOnce_(largeAtOnce) {}

    /// False when the lane is full. A file that waits in the background already is not taken a second time.
    bool push(Lane lane, const Item& item);
    /// The next one of a lane, to be given to `done` after its scan; waits for it. Nothing once the queue was ended.
    Item pop(Lane lane);
    void done(Lane lane, const FileAccess& access);
    /// Whether the file is in the background because its scan takes too long for anybody to wait for.
    bool isSlow(const FileAccess& access);
    /// Nobody waits for anything after this.
    void end();

private:
    struct Waiting {
        std::deque<Item> items;
        std::condition_variable ready;
    };

    Waiting& waiting(Lane lane) { return lanes_[static_cast<std::size_t>(lane)]; }
    std::deque<Item>::iterator nextOf(Lane lane);

    const std::size_t limit_;
    const unsigned largeAtOnce_;
    std::mutex mutex_;
    std::array<Waiting, 2> lanes_;
    std::multiset<FileIdentity> slow_;  ///< overdue ones in the background, also the one that is being scanned
    unsigned large_ = 0;                ///< being scanned in the first lane
    bool ended_ = false;
};

}  // namespace keldra
