#pragma once

#include "service/realtime/file_access.h"

#include <array>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace keldra {

/// Where a file access waits for its scan.
enum class Lane {
    QUICK,      ///< somebody waits; each scan gets a short time
    SLOW,       ///< somebody waits; what is large, or took longer than that
    BACKGROUND  ///< nobody waits: files that were written, and those whose scan took too long for whoever opened them
};

/// File accesses that wait for their scan. In each lane users take turns, so that one with many files delays his own
/// only. May be used from any thread.
class AccessQueue {
public:
    using Item = std::shared_ptr<FileAccess>;

    /// What is left to be known of an item that is being scanned.
    struct Scanned {
        FileIdentity file;
        uid_t user = 0;
        bool overdue = false;  ///< scanned in the background because it took too long
    };

    struct Limits {
        std::size_t waiting = 256;  ///< accesses that somebody waits for, in one lane; one user may have half of them
        std::size_t background = 8192;  ///< of which one user may have half, too
        unsigned slowAtOnce = 1;        ///< slow files of one user that are scanned at a time
    };
    explicit AccessQueue(const Limits& limits) : limits_(limits) {}

    /// False when the lane is full, or holds as many of that user's as it may. A file that waits in the background
    /// already is not taken a second time.
    bool push(Lane lane, const Item& item);
    /// The next one of a lane, waited for; `done` is to be told of its end. Nothing once the queue was ended.
    Item pop(Lane lane);
    static Scanned scannedOf(const FileAccess& access);
    void done(Lane lane, const Scanned& scanned);
    std::size_t waiting(Lane lane) const;
    /// Whether the file is in the background because its scan takes too long for anybody to wait for.
    bool isSlow(const FileAccess& access) const;
    /// Nobody waits for anything after this. What is left goes with the queue or with `drop`.
    void end();
    /// Lets go of what was left at the end; that may wait for file systems that do not answer.
    void drop();

private:
    struct Waiting {
        std::deque<Item> items;
        std::map<uid_t, unsigned> running;  ///< scans under way, by user
        std::condition_variable ready;
    };

    Waiting& at(Lane lane) { return lanes_[static_cast<std::size_t>(lane)]; }
    const Waiting& at(Lane lane) const { return lanes_[static_cast<std::size_t>(lane)]; }
    bool hasRoom(Lane lane, const FileAccess& access) const;
    std::deque<Item>::iterator nextOf(Lane lane);

    const Limits limits_;
    mutable std::mutex mutex_;
    std::array<Waiting, 3> lanes_;
    std::multiset<FileIdentity> slow_;  ///< overdue ones in the background, also the one that is being scanned
    bool ended_ = false;
};

}  // namespace keldra
