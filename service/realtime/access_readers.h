#pragma once

#include "service/realtime/fanotify_group.h"
#include "service/realtime/file_access.h"
#include "service/realtime/loose_threads.h"

#include <pthread.h>
#include <sys/fanotify.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace keldra {

/// The threads that read a group's events. The kernel opens an event's file inside of the reading, and that may take
/// long: until whoever holds a lease on the file lets go of it, or until a dead server answers. A reader that is held
/// up so is counted out and another one takes its place; when all places are taken, those held up longest are
/// interrupted, whereupon the kernel refuses the accesses that they were opening the files of.
class AccessReaders : public std::enable_shared_from_this<AccessReaders> {
public:
    struct Hooks {
        /// What to do with an event; waits for nothing. Called from several threads.
        std::function<void(const fanotify_event_metadata& event, FileDescriptor file)> receive;
        /// Words for the log, from threads that must not wait.
        std::function<void(std::string note)> note;
        /// Reading has failed for good.
        std::function<void()> failed;
    };

    AccessReaders(std::shared_ptr<const FanotifyGroup> group, LooseThreads threads, Hooks hooks);

    /// `owner`: held by the threads, for what the hooks work with. False when there cannot be one.
    bool start(std::weak_ptr<void> owner);
    /// Replaces readers that are held up; to be called every few milliseconds while `pressed`, else ten times a second.
    void watch(SteadyTime now);
    /// Readers have been held up in the last seconds.
    bool pressed(SteadyTime now) const;
    /// How many have been held up for that long.
    unsigned heldUp(SteadyTime now, std::chrono::milliseconds time) const;
    /// Asks all to end, and wakes those that are held up; to be called again until they have.
    void end();

private:
    struct Reader;

    bool add();
    std::size_t countHeldUp(SteadyTime now, std::chrono::milliseconds time) const;
    void read(Reader& reader);
    bool readOne(Reader& reader, int group);
    void takeFailure(int error);
    bool leave(Reader& reader);
    void interrupt(std::size_t count, SteadyTime now);

    const std::shared_ptr<const FanotifyGroup> group_;
    LooseThreads threads_;
    const Hooks hooks_;
    const FileDescriptor wake_;
    std::weak_ptr<void> owner_;
    std::atomic<bool> ended_{false};
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Reader>> readers_;
    SteadyTime pressedUntil_;
};

}  // namespace keldra
