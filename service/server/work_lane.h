#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace keldra {

/// Bounds of a lane.
struct LaneLimits {
    unsigned threads = 1;
    std::size_t waiting = 64;               ///< jobs that wait for a thread
    std::chrono::milliseconds patience{0};  ///< with a job, from its posting on; 0: any time
    unsigned hanging = 8;                   ///< threads that may hang at a time and are replaced
};

/// Threads of their own for one sort of work, so that work which hangs (in a file system that does not answer, for
/// instance) holds up only its like, and not even that: a thread that does not come back is counted out and replaced.
/// It cannot be taken back, so what it works on must live as long as the process.
class WorkLane {
public:
    using Work = std::function<void()>;

    explicit WorkLane(const LaneLimits& limits);
    /// Threads that hang are left behind.
    ~WorkLane();
    WorkLane(const WorkLane&) = delete;
    WorkLane& operator=(const WorkLane&) = delete;

    /// Lets a thread of the lane do `work`. `late` is called by `sweep` when that takes longer than the lane's
    /// patience; work which had not begun is then dropped. False when too much waits already or all threads hang.
    bool post(Work work, Work late = {});
    /// Calls what is overdue and replaces the threads that hang. To be called now and then while `busy`.
    void sweep();
    /// Whether anything is being done or waits.
    bool busy() const;
    /// Begins nothing any more and waits for what runs, so long at most. True when all threads have ended.
    bool stop(std::chrono::milliseconds patience);

private:
    struct State;
    static void startThread(const std::shared_ptr<State>& state);
    static void replaceThread(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
};

}  // namespace keldra
