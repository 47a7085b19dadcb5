#include "service/realtime/on_access.h"

#include "norv/log.h"
#include "service/realtime/access_listener.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace keldra {

OnAccess::OnAccess(OnAccessHooks hooks) : hooks_(std::make_shared<const OnAccessHooks>(std::move(hooks))) {}

OnAccess::~OnAccess() { stop(); }

bool OnAccess::kernelAllows(std::string* reason) {
    // Neither the kernel nor the process's rights change, and taking a mark away waits for all of the kernel's readers.
    static const std::string refusal = FanotifyGroup::refusal();
    if (reason && !refusal.empty()) *reason = refusal;
    return refusal.empty();
}

bool OnAccess::configure(const OnAccessSettings& settings) {
    const std::lock_guard configuring(configureMutex_);
    const bool wanted = settings.incoming || settings.outgoing;
    if (wanted && running() && settings_ == settings) return true;
    settings_ = settings;
    if (!wanted) return replace(nullptr, {}), true;
    std::string problem;
    auto listener = std::make_shared<AccessListener>(hooks_, settings, finds_);
    if (!kernelAllows(&problem) || !listener->start(problem)) listener.reset();
    if (!listener) NORV_LOG(NORV_LOG_ERROR, "The real-time scan does not run: %s", problem.c_str());
    replace(std::move(listener), problem);
    return running();
}

bool OnAccess::stop() {
    configure({});
    const std::lock_guard configuring(configureMutex_);
    return leftBehind_.empty();
}

/// The old listener ends outside of the lock: its workers may be in a hook that asks for the status.
void OnAccess::replace(std::shared_ptr<AccessListener> listener, std::string problem) {
    {
        const std::lock_guard lock(mutex_);
        listener_.swap(listener);
        problem_ = std::move(problem);
    }
    if (listener) {
        listener->end();
        leftBehind_.push_back(listener->threads());
    }
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(leftBehind_, [now](const LooseThreads& threads) { return threads.awaitEnd(now); });
}

std::shared_ptr<AccessListener> OnAccess::listener() const {
    const std::lock_guard lock(mutex_);
    return listener_;
}

OnAccessStatus OnAccess::status() const {
    std::unique_lock lock(mutex_);
    const auto current = listener_;
    if (!current || !problem_.empty()) return {.problem = problem_};
    lock.unlock();
    return {.running = current->running(),
            .exhausted = current->exhausted(),
            .hanging = current->hanging(),
            .waiting = current->waiting(),
            .problem = current->problem()};
}

bool OnAccess::working() const {
    const auto current = listener();
    return !current || current->watched();
}

std::shared_ptr<void> OnAccess::beginAction(int fd, const std::string& path) {
    auto action = RecentFinds::beginAction(finds_, glanceAt(fd).identity, path);
    // Under other settings it may have been clean.
    if (const auto current = listener()) current->forgetClean(fd);
    return action;
}

void OnAccess::forgetClean() {
    if (const auto current = listener()) current->forgetClean();
}

}  // namespace keldra
