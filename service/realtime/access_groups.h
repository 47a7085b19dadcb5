#pragma once

#include "service/realtime/access_readers.h"
#include "service/realtime/watched_places.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// The groups of the kernel's events, each with its readers: one for all file systems of this machine, and one for each
/// that another machine or a program answers for, so that one that does not answer holds up its own accesses only. May
/// be used from several threads.
class AccessGroups {
public:
    /// A group that an event came from.
    struct Source {
        std::shared_ptr<const FanotifyGroup> group;
        bool remote = false;
    };
    struct Hooks {
        std::function<void(const fanotify_event_metadata& event, FileDescriptor file, const Source& source)> receive;
        std::function<void(std::string note)> note;
        /// The local file systems cannot be listened to any more.
        std::function<void()> failed;
    };

    /// `mask`: the events that are listened to.
    AccessGroups(std::uint64_t mask, LooseThreads threads, Hooks hooks);

    /// Begins to listen, to nothing yet. `owner`: held by the threads. False with errno set.
    bool open(const std::shared_ptr<void>& owner);
    /// Listens to these file systems as well. Returns how many of them it could; `report`: log what could not be.
    std::size_t mark(const std::vector<PlaceToMark>& places, bool report);
    /// To be called every few milliseconds while `pressed`, else ten times a second.
    void watch(SteadyTime now);
    bool pressed(SteadyTime now) const;
    /// Files that the kernel has been opening for longer than a file system that works would take.
    unsigned hanging(SteadyTime now) const;
    /// Asks again about everything that was remembered as clean.
    void forgetClean();
    /// The same about one open file.
    void forgetClean(int fd);
    /// Asks the readers to end; to be called again until they have.
    void end();
    /// Lets all accesses go on, as soon as the readers have ended.
    void close();

private:
    struct Group {
        std::shared_ptr<FanotifyGroup> group;
        std::shared_ptr<AccessReaders> readers;
    };

    std::shared_ptr<FanotifyGroup> add(const std::string& device);
    std::shared_ptr<FanotifyGroup> groupOf(const std::string& device);
    std::vector<Group> all() const;

    const std::uint64_t mask_;
    LooseThreads threads_;
    const Hooks hooks_;
    std::weak_ptr<void> owner_;
    mutable std::mutex mutex_;
    std::map<std::string, Group> groups_;  ///< by remote device; the local ones under an empty name
};

}  // namespace keldra
