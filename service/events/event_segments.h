#pragma once

#include "service/base/files.h"
#include "service/events/event.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// The files of a journal: "<number>.events", each with the events behind those of the number before. One thread
/// writes, any may read.
class EventSegments {
public:
    EventSegments(std::filesystem::path folder, std::size_t bytes, std::size_t segments);

    /// Finds what is there and cuts off a line that a crash left unfinished. Returns the last event's id, 0 when there
    /// is none. False in `usable` when the folder cannot be made.
    std::uint64_t open(bool& usable);
    /// Appends lines and syncs them. An errno, 0 when they are on disk; after a failure none of them is there.
    int append(const std::string& lines);
    /// Drops files whose events are all older than `oldest` (seconds since the epoch), but never the newest file.
    void dropOlderThan(std::int64_t oldest);
    /// Calls `each` with every event, newest first, until it returns false. Of dropped files the newest events of
    /// each task that have a record are still there, however old they are.
    void forEach(const std::function<bool(Event&&)>& each) const;

private:
    std::filesystem::path pathOf(std::uint64_t number) const;
    std::string contentOf(std::uint64_t number) const;
    std::filesystem::path keptPath() const { return folder_ / "kept"; }
    bool drop(std::uint64_t number);
    void dropSuperfluous();
    std::vector<std::uint64_t> numbers() const;
    void setNumbers(std::vector<std::uint64_t> numbers);

    const std::filesystem::path folder_;
    const std::size_t bytes_;
    const std::size_t segments_;
    FileDescriptor newest_;
    std::size_t newestSize_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::uint64_t> numbers_;  ///< in ascending order
};

}  // namespace keldra
