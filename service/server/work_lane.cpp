#include "service/server/work_lane.h"

#include "norv/log.h"

#include <condition_variable>
#include <exception>
#include <iterator>
#include <list>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace keldra {

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

struct Job {
    WorkLane::Work work;
    WorkLane::Work late;
    SteadyTime posted;
    bool givenUp = false;
};
using JobPtr = std::shared_ptr<Job>;

void run(const Job& job) noexcept try { job.work(); } catch (const std::exception& error) {
    NORV_LOG(NORV_LOG_ERROR, "Some work failed: %s", error.what());
}

}  // namespace

/// Shared with the threads, since one that hangs may outlive the lane.
struct WorkLane::State {
    explicit State(const LaneLimits& bounds) : limits(bounds) {}

    void serve();
    bool overdue(const Job& job, SteadyTime now) const {
        return limits.patience.count() > 0 && now - job.posted >= limits.patience;
    }

    const LaneLimits limits;
    std::mutex mutex;
    std::condition_variable changed;
    std::list<JobPtr> waiting;
    std::list<JobPtr> running;
    unsigned threads = 0;  ///< those that do not hang
    unsigned hanging = 0;
    bool stopping = false;
};

void WorkLane::State::serve() {
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return stopping || !waiting.empty(); });
        if (stopping) break;
        running.splice(running.end(), waiting, waiting.begin());  // needs no memory, which there may be none of
        const auto place = std::prev(running.end());
        const JobPtr job = *place;
        lock.unlock();
        run(*job);
        lock.lock();
        running.erase(place);
        if (!job->givenUp) continue;
        --hanging;
        // Unless none could take its place.
        if (threads >= limits.threads) {
            changed.notify_all();
            return;
        }
        ++threads;
    }
    --threads;
    changed.notify_all();
}

void WorkLane::startThread(const std::shared_ptr<State>& state) {
    std::thread([state] { state->serve(); }).detach();
    ++state->threads;
}

void WorkLane::replaceThread(const std::shared_ptr<State>& state) try {
    startThread(state);
} catch (const std::exception& error) {
    NORV_LOG(NORV_LOG_ERROR, "A thread hangs and cannot be replaced: %s", error.what());
}

WorkLane::WorkLane(const LaneLimits& limits) : state_(std::make_shared<State>(limits)) {
    const std::lock_guard lock(state_->mutex);
    for (unsigned i = 0; i < limits.threads; ++i) startThread(state_);
}

WorkLane::~WorkLane() { stop(std::chrono::milliseconds(0)); }

bool WorkLane::post(Work work, Work late) {
    const std::lock_guard lock(state_->mutex);
    if (state_->stopping || state_->threads == 0 || state_->waiting.size() >= state_->limits.waiting) return false;
    state_->waiting.push_back(
        std::make_shared<Job>(Job{std::move(work), std::move(late), std::chrono::steady_clock::now()}));
    state_->changed.notify_one();
    return true;
}

void WorkLane::sweep() {
    std::vector<Work> late;
    {
        const std::lock_guard lock(state_->mutex);
        const auto now = std::chrono::steady_clock::now();
        for (const JobPtr& job : state_->running) {
            if (job->givenUp || !state_->overdue(*job, now)) continue;
            late.push_back(job->late);
            job->givenUp = true;
            --state_->threads;
            if (++state_->hanging <= state_->limits.hanging) replaceThread(state_);
        }
        while (!state_->waiting.empty() && state_->overdue(*state_->waiting.front(), now)) {
            late.push_back(state_->waiting.front()->late);
            state_->waiting.pop_front();
        }
    }
    for (const Work& tell : late)
        if (tell) tell();
}

bool WorkLane::busy() const {
    const std::lock_guard lock(state_->mutex);
    return !state_->running.empty() || !state_->waiting.empty();
}

bool WorkLane::stop(std::chrono::milliseconds patience) {
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    state_->waiting.clear();
    state_->changed.notify_all();
    return state_->changed.wait_for(lock, patience, [this] { return state_->threads + state_->hanging == 0; });
}

}  // namespace keldra
