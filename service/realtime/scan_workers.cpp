#include "service/realtime/scan_workers.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

constexpr unsigned MOST_HANGING = 64;        // workers; when so many hang none is replaced any more
constexpr unsigned MOST_HANGING_ON_ONE = 4;  // in one file system that others answer for, before it is shunned

}  // namespace

/// All under the lock, but for the lane.
struct ScanWorkers::Worker {
    explicit Worker(Lane its) : lane(its) {}

    const Lane lane;
    bool busy = false;
    bool out = false;  ///< counted out
    bool remote = false;
    SteadyTime until;  ///< when the scan is asked to stop
    std::stop_source stop;
    AccessQueue::Scanned scanned;
    std::string path;
};

ScanWorkers::ScanWorkers(AccessQueue& queue, LooseThreads threads, const ScanTimes& times, Hooks hooks)
    : queue_(queue), threads_(std::move(threads)), times_(times), hooks_(std::move(hooks)) {}

bool ScanWorkers::start(Lane lane, unsigned count, const std::shared_ptr<void>& owner) {
    const std::lock_guard lock(mutex_);
    owner_ = owner;
    if (lane == Lane::QUICK) quickWorkers_ += count;
    bool all = true;
    for (unsigned i = 0; i < count; ++i) all = add(lane, owner) && all;
    return all;
}

bool ScanWorkers::add(Lane lane, const std::shared_ptr<void>& owner) {
    const auto worker = std::make_shared<Worker>(lane);
    workers_.push_back(worker);
    if (threads_.start([self = shared_from_this(), owner, worker] { self->work(*worker); })) return true;
    workers_.pop_back();
    return false;
}

void ScanWorkers::work(Worker& worker) {
    while (AccessQueue::Item item = queue_.pop(worker.lane)) {
        begin(worker, *item);
        hooks_.scan(worker.lane, item, worker.stop.get_token());
        // Letting go of a file may take as long as looking at it.
        item.reset();
        if (!finish(worker)) break;
    }
    std::unique_lock lock(mutex_);
    std::erase_if(workers_, [&](const auto& each) { return each.get() == &worker; });
    const bool ended = ended_;
    lock.unlock();
    if (ended) queue_.drop();
}

void ScanWorkers::begin(Worker& worker, const FileAccess& access) {
    const SteadyTime now = std::chrono::steady_clock::now();
    const std::lock_guard lock(mutex_);
    worker.busy = true;
    worker.remote = access.remote();
    worker.until = endOf(worker.lane, access, now);
    worker.scanned = AccessQueue::scannedOf(access);
    worker.path = access.path();
    worker.stop = std::stop_source();
    if (ended_) worker.stop.request_stop();
}

/// False when the worker has been replaced.
bool ScanWorkers::finish(Worker& worker) {
    const std::lock_guard lock(mutex_);
    worker.busy = false;
    if (!worker.out) return queue_.done(worker.lane, worker.scanned), true;
    --hanging_;
    const auto on = worker.remote ? hangingOn_.find(worker.scanned.file.first) : hangingOn_.end();
    if (on != hangingOn_.end() && --on->second == 0) hangingOn_.erase(on);
    return false;
}

/// When many wait, each gets less before it has to make room.
std::chrono::milliseconds ScanWorkers::quickTime() const {
    const auto share = times_.quick * quickWorkers_ / static_cast<int>(queue_.waiting(Lane::QUICK) + 1);
    return std::clamp<std::chrono::milliseconds>(share, times_.quickPressed, times_.quick);
}

SteadyTime ScanWorkers::endOf(Lane lane, const FileAccess& access, SteadyTime now) const {
    if (lane == Lane::BACKGROUND || !access.opener()) return now + times_.background;
    const SteadyTime deadline = access.opener()->deadline();
    return lane == Lane::QUICK ? std::min(deadline, now + quickTime()) : deadline;
}

void ScanWorkers::watch(SteadyTime now) {
    std::vector<std::stop_source> overdue;  // a stop may call back, which is no matter for the lock
    {
        const std::lock_guard lock(mutex_);
        for (std::size_t i = 0; i < workers_.size(); ++i) {  // grows meanwhile
            Worker& worker = *workers_[i];
            if (!worker.busy || worker.out || now < worker.until) continue;
            if (!worker.stop.stop_requested()) overdue.push_back(worker.stop);
            if (now >= worker.until + times_.grace) countOut(worker);
        }
    }
    for (std::stop_source& stop : overdue) stop.request_stop();
}

/// Under the lock.
void ScanWorkers::countOut(Worker& worker) {
    const auto owner = owner_.lock();
    if (!owner || ended_ || hanging_ >= MOST_HANGING || !add(worker.lane, owner)) return;
    worker.out = true;
    ++hanging_;
    if (worker.remote) ++hangingOn_[worker.scanned.file.first];
    queue_.done(worker.lane, worker.scanned);
    hooks_.note("The file system does not answer, the file was left aside unscanned: " + worker.path);
}

void ScanWorkers::end() {
    std::vector<std::stop_source> running;
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        for (const auto& worker : workers_)
            if (worker->busy) running.push_back(worker->stop);
    }
    for (std::stop_source& stop : running) stop.request_stop();
}

unsigned ScanWorkers::hanging() const {
    const std::lock_guard lock(mutex_);
    return hanging_;
}

bool ScanWorkers::exhausted() const { return hanging() >= MOST_HANGING; }

bool ScanWorkers::shuns(const FileAccess& access) const {
    if (!access.remote()) return false;
    const std::lock_guard lock(mutex_);
    const auto on = hangingOn_.find(access.glance().identity.first);
    return on != hangingOn_.end() && on->second >= MOST_HANGING_ON_ONE;
}

}  // namespace keldra
