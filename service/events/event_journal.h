#pragma once

#include "service/base/clock.h"
#include "service/events/daily_figures.h"
#include "service/events/event.h"
#include "service/events/event_segments.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace keldra {

/// Where a journal is kept and how much of it.
struct EventJournalSettings {
    std::filesystem::path folder{};  ///< made when missing, 0700
    std::size_t segmentBytes = std::size_t{2} << 20U;
    std::size_t segments = 8;                      ///< files kept at most; with the above what all may take
    std::int64_t age = std::int64_t{400} * 86400;  ///< seconds for which an event is kept
    std::size_t queue = 10000;                     ///< events that wait for a disk that takes none
    int retry = 5000;                              ///< milliseconds between tries to write to such a disk
};

/// A part of what was asked for.
struct EventPage {
    std::vector<Event> events;  ///< newest first
    std::uint64_t total = 0;    ///< all that match the filter, in the pages before and after too
};

/// What happened on this server, whatever task it belongs to: appended to files of bounded size, one line each. `add`
/// only puts into memory; a thread of the journal's own writes and syncs, so that no scan ever waits for the disk. May
/// be used from any thread.
class EventJournal {
public:
    explicit EventJournal(EventJournalSettings settings, const Clock& clock = systemClock());
    /// Writes what waits.
    ~EventJournal();
    EventJournal(const EventJournal&) = delete;
    EventJournal& operator=(const EventJournal&) = delete;

    /// Takes note of something; never waits. Finds and files that were not scanned also go into the daily figures.
    /// Returns the event's id, 0 when there is no room for it.
    std::uint64_t add(Event event);
    /// Whether an event is on disk; false for 0.
    bool onDisk(std::uint64_t id) const;
    /// Files that were scanned, for the daily figures. `time`: seconds since the epoch; 0: now.
    void countScanned(std::uint64_t files, std::int64_t time = 0);

    /// The events that match, newest first, without the first `from` ones, at most `count`.
    EventPage query(const EventFilter& filter, std::size_t from, std::size_t count) const;
    /// The last days up to today, oldest first, days without anything included.
    std::vector<DayFigures> days(std::size_t count) const;

    /// English: why events cannot be written at the moment; empty when they can.
    std::string problem() const;
    /// Waits until all that was added is on disk, at most so many milliseconds. True when it is.
    bool flush(int milliseconds);
    /// Called with events that were just added, from the journal's own thread and in order. Set it before the first
    /// event; must not throw.
    void onEvents(std::function<void(const std::vector<Event>&)> listener);
    /// Ends the listener's calls and writes what waits.
    void stop();

private:
    void run();
    void turn(std::unique_lock<std::mutex>& lock);
    void saveFigures(std::unique_lock<std::mutex>& lock, bool clockTrusted);
    Event overflow(std::uint64_t lost) const;

    const EventJournalSettings settings_;
    const Clock& clock_;
    EventSegments segments_;
    FigureFile figureFile_;
    std::function<void(const std::vector<Event>&)> listener_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Event> waiting_;  ///< not on disk yet
    std::uint64_t nextId_ = 1;
    std::uint64_t told_ = 0;  ///< id of the last event that the listener knows
    std::uint64_t lost_ = 0;  ///< events for which there was no room
    DailyFigures figures_;
    bool figuresChanged_ = false;
    bool stopping_ = false;
    std::string problem_;
    std::thread thread_;  ///< last: it uses all of the above
};

}  // namespace keldra
