#include "service/engine/scanner_team.h"

#include "norv/log.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

namespace keldra {

namespace {

/// A scan that is over sooner is not looked at for the room it takes.
constexpr std::chrono::milliseconds LONG_SCAN{50};
constexpr const char* NO_MEMORY = "out of memory";  // so short that it needs none

std::size_t indexOf(ScanLane lane) { return static_cast<std::size_t>(lane); }

}  // namespace

ScannerTeam::ScannerTeam(Settings settings) : settings_(std::move(settings)) {
    realtime_.limit = std::max(2U, settings_.realtime);
    background_.limit = std::max(1U, settings_.background);
}

/// A lane is due unless another one waits that has fewer workers.
bool ScannerTeam::isDue(const Group& group, ScanLane lane) {
    for (std::size_t other = 0; other < group.waiting.size(); ++other)
        if (other != indexOf(lane) && !group.waiting[other].empty() &&
            group.running[other] < group.running[indexOf(lane)])
            return false;
    return !group.idle.empty() || group.count < group.limit;
}

void ScannerTeam::wakeFirst(const Group& group) {
    if (group.idle.empty() && group.count >= group.limit) return;
    for (const auto& queue : group.waiting)
        if (!queue.empty()) queue.front()->notify_one();
}

ScannerTeam::Worker ScannerTeam::idleOf(Group& group, const std::shared_ptr<ScannerHost>& host) {
    while (!group.idle.empty()) {
        Worker worker = std::move(group.idle.back());
        group.idle.pop_back();
        if (worker->host == host && worker->folder.usable()) return worker;
        --group.count;
    }
    return nullptr;
}

ScannerTeam::Worker ScannerTeam::make(ScanLane lane, const std::shared_ptr<ScannerHost>& host, std::string& fault) {
    auto worker =
        std::make_shared<ScannerWorker>(host, ++next_, settings_.temporaryFolder, settings_.user, settings_.group);
    if (!worker->folder.usable()) {
        fault = "the folder for temporary files cannot be made: " + errorText(errno);
        return nullptr;
    }
    worker->channel = host->startWorker(worker->number, lane != ScanLane::REALTIME, worker->folder.descriptor());
    if (worker->channel) return worker;
    fault = "no scanner can be started: " + errorText(errno);
    return nullptr;
}

/// So that whoever opens a file next need not wait for a worker to begin.
void ScannerTeam::keepSpare(const std::shared_ptr<ScannerHost>& host) {
    {
        const std::lock_guard lock(mutex_);
        if (!realtime_.idle.empty() || realtime_.count >= realtime_.limit) return;
        ++realtime_.count;
    }
    Worker worker;
    try {
        std::string fault;
        worker = make(ScanLane::REALTIME, host, fault);
    } catch (const std::bad_alloc&) {
        NORV_LOG(NORV_LOG_WARNING, "No scanner is kept ready: %s", NO_MEMORY);
    }
    const std::lock_guard lock(mutex_);
    keepIdle(realtime_, std::move(worker));
    wakeFirst(realtime_);
}

/// Or, when there is none or no memory to note it, makes its place free.
void ScannerTeam::keepIdle(Group& group, Worker worker) noexcept try {
    if (worker)
        group.idle.push_back(std::move(worker));
    else
        --group.count;
} catch (const std::bad_alloc&) {
    --group.count;
}

ScannerTeam::Worker ScannerTeam::take(ScanLane lane, const std::shared_ptr<ScannerHost>& host,
                                      const std::stop_token& stop, std::string& fault) {
    Group& group = groupOf(lane);
    Worker worker;
    {
        std::unique_lock lock(mutex_);
        std::condition_variable_any turn;
        auto& queue = group.waiting[indexOf(lane)];
        queue.push_back(&turn);
        const bool due = turn.wait(lock, stop, [&] { return queue.front() == &turn && isDue(group, lane); });
        std::erase(queue, &turn);
        if (!due) wakeFirst(group);
        if (!due) return nullptr;
        ++group.running[indexOf(lane)];
        worker = idleOf(group, host);
        if (!worker) ++group.count;
        wakeFirst(group);
    }
    // Without memory for a worker its place is free again, or later files would wait for it for ever.
    try {
        if (!worker) worker = make(lane, host, fault);
        if (lane == ScanLane::REALTIME && worker) keepSpare(host);
        const std::lock_guard lock(mutex_);
        if (worker) {
            worker->since = std::chrono::steady_clock::now();
            busy_.push_back(worker);
            return worker;
        }
    } catch (const std::bad_alloc&) {
        fault = NO_MEMORY;
    }
    const std::lock_guard lock(mutex_);
    --group.running[indexOf(lane)];
    --group.count;
    wakeFirst(group);
    return nullptr;
}

void ScannerTeam::giveBack(ScanLane lane, Worker worker) {
    worker->folder.empty();
    Group& group = groupOf(lane);
    const std::lock_guard lock(mutex_);
    std::erase(busy_, worker);
    --group.running[indexOf(lane)];
    keepIdle(group, worker->host == current_ ? std::move(worker) : nullptr);
    wakeFirst(group);
}

void ScannerTeam::discard(ScanLane lane, const Worker& worker) {
    Group& group = groupOf(lane);
    {
        const std::lock_guard lock(mutex_);
        std::erase(busy_, worker);
        --group.running[indexOf(lane)];
        --group.count;
        wakeFirst(group);
    }
    if (lane == ScanLane::REALTIME && worker->host->alive()) keepSpare(worker->host);
}

void ScannerTeam::keepOnly(const std::shared_ptr<ScannerHost>& host) {
    std::vector<Worker> old;  // let go outside of the lock
    const std::lock_guard lock(mutex_);
    current_ = host;
    for (Group* const group : {&realtime_, &background_}) {
        for (Worker& worker : group->idle)
            if (worker->host != host) old.push_back(std::move(worker));
        group->count -= static_cast<unsigned>(std::erase(group->idle, nullptr));
        wakeFirst(*group);
    }
}

bool ScannerTeam::busy() const {
    const std::lock_guard lock(mutex_);
    return !busy_.empty();
}

void ScannerTeam::watchRoom() {
    std::vector<Worker> busy;
    {
        const auto before = std::chrono::steady_clock::now() - LONG_SCAN;
        const std::lock_guard lock(mutex_);
        std::copy_if(busy_.begin(), busy_.end(), std::back_inserter(busy),
                     [before](const Worker& worker) { return worker->since < before; });
    }
    uint64_t all = 0;
    uint64_t most = 0;
    Worker largest;
    for (const Worker& worker : busy) {
        const uint64_t size = worker->folder.size();
        all += size;
        if (size > most) largest = worker;
        most = std::max(most, size);
    }
    if (all <= settings_.room) return;
    NORV_LOG(NORV_LOG_WARNING, "A file takes %llu MiB unpacked, which is too much",
             static_cast<unsigned long long>(most >> 20U));
    largest->tookRoom = true;
    largest->host->killWorker(largest->number);
}

}  // namespace keldra
