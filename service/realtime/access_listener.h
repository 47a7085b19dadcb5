#pragma once

#include "service/realtime/access_groups.h"
#include "service/realtime/access_queue.h"
#include "service/realtime/access_scan.h"
#include "service/realtime/deferred_log.h"
#include "service/realtime/loose_threads.h"
#include "service/realtime/places_follower.h"
#include "service/realtime/scan_workers.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>

namespace keldra {

/// Listens with one set of settings: takes accesses from the readers, answers at once what does not concern it, queues
/// the rest for the workers, and sees to it that nobody waits longer than he is to. A thread of its own watches all the
/// others; it touches no file. Lives as long as any of its threads.
class AccessListener : public std::enable_shared_from_this<AccessListener> {
public:
    AccessListener(std::shared_ptr<const OnAccessHooks> hooks, OnAccessSettings settings,
                   std::shared_ptr<RecentFinds> finds);

    /// Begins to listen; what there is not to watch yet is looked for again and again. False, with the reason in words,
    /// when it cannot listen at all.
    bool start(std::string& problem);
    /// Allows what waits and ends the threads, which is waited for for a second at most.
    void end();
    /// Those that may have been left behind.
    const LooseThreads& threads() const { return threads_; }

    bool running() const { return alive_ && follower_->watching() && !workers_->exhausted(); }
    bool exhausted() const { return workers_->exhausted(); }
    unsigned hanging() const { return workers_->hanging() + groups_.hanging(std::chrono::steady_clock::now()); }
    /// Accesses that wait for their scan, by lane.
    std::array<std::size_t, 3> waiting() const {
        return {queue_.waiting(Lane::QUICK), queue_.waiting(Lane::SLOW), queue_.waiting(Lane::BACKGROUND)};
    }
    std::string problem() const;
    void forgetClean();
    /// Asks again about that open file, and about whatever is being scanned.
    void forgetClean(int fd);
    /// False when nobody sees to those who wait any more.
    bool watched() const;

private:
    using Item = AccessQueue::Item;

    bool startThreads();
    void receive(const fanotify_event_metadata& event, FileDescriptor file, const AccessGroups::Source& source);
    void admit(const fanotify_event_metadata& event, FileDescriptor file, const AccessGroups::Source& source);
    void enqueue(Lane lane, const Item& item);
    void scan(Lane lane, const Item& item, const std::stop_token& stop);
    void goOn(Lane lane, const Item& item);
    void answerShunned(const FileAccess& access);
    void answerUnscanned(WaitingOpener* opener, const std::string& path, const std::string& why);
    void watch();
    void watchOnce(SteadyTime now);
    void fail();

    const OnAccessSettings settings_;
    LooseThreads threads_;
    AccessScan scan_;
    AccessQueue queue_;
    WaitingOpeners openers_;
    AccessGroups groups_;
    const std::shared_ptr<DeferredLog> log_ = std::make_shared<DeferredLog>();
    const std::shared_ptr<ScanWorkers> workers_;
    const std::shared_ptr<PlacesFollower> follower_;
    std::atomic<bool> alive_{false};
    std::atomic<bool> ended_{false};
    std::atomic<SteadyTime> lastLook_{SteadyTime::max()};
    std::mutex mutex_;
    std::condition_variable ending_;
};

}  // namespace keldra
