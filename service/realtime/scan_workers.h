#pragma once

#include "service/realtime/access_queue.h"
#include "service/realtime/loose_threads.h"
#include "service/realtime/on_access_settings.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// The threads that scan what is queued. A scan that takes longer than its lane gives it is asked to stop. A worker
/// that does not come back even then hangs in a file system that does not answer: it is counted out, and another one
/// takes its place.
class ScanWorkers : public std::enable_shared_from_this<ScanWorkers> {
public:
    struct Hooks {
        /// Scans a file and answers whoever waits. Must not throw.
        std::function<void(Lane lane, const AccessQueue::Item& item, std::stop_token stop)> scan;
        std::function<void(std::string note)> note;
    };

    ScanWorkers(AccessQueue& queue, LooseThreads threads, const ScanTimes& times, Hooks hooks);

    /// So many more workers for a lane. `owner`: held by the threads, for the queue and the hooks.
    bool start(Lane lane, unsigned count, const std::shared_ptr<void>& owner);
    /// To be called several times a second.
    void watch(SteadyTime now);
    void end();
    /// Files that hang, each with its worker.
    unsigned hanging() const;
    /// So many that no further one would be replaced.
    bool exhausted() const;
    /// Whether the file lies in a file system that others answer for and in which others hang already.
    bool shuns(const FileAccess& access) const;

private:
    struct Worker;

    bool add(Lane lane, const std::shared_ptr<void>& owner);
    void work(Worker& worker);
    void begin(Worker& worker, const FileAccess& access);
    bool finish(Worker& worker);
    void countOut(Worker& worker);
    std::chrono::milliseconds quickTime() const;
    SteadyTime endOf(Lane lane, const FileAccess& access, SteadyTime now) const;

    AccessQueue& queue_;
    LooseThreads threads_;
    const ScanTimes times_;
    const Hooks hooks_;
    std::weak_ptr<void> owner_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Worker>> workers_;
    std::map<std::uint64_t, unsigned> hangingOn_;  ///< by device, of the remote ones
    unsigned hanging_ = 0;
    unsigned quickWorkers_ = 0;
    bool ended_ = false;
};

}  // namespace keldra
