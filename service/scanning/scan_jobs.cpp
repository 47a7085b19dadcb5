#include "service/scanning/scan_jobs.h"

#include "norv/log.h"

#include <algorithm>
#include <set>
#include <utility>

namespace keldra {

ScanJobs::ScanJobs(ScanJobsSettings settings, ScanEngine& engine, Actions& actions, EventJournal& journal,
                   const Clock& clock)
    : settings_(std::move(settings)),
      history_(settings_.historyFolder, journal),
      tools_{engine,           actions,        history_, clock, settings_.ownFolders, settings_.findLimit,
             settings_.onFind, settings_.onEnd} {
    history_.open();
    ended_ = history_.readAll();
    forgetSuperfluous();
    std::set<std::string> ids;
    for (const auto& [id, status] : ended_) ids.insert(id);
    history_.removeOthers(ids);
}

ScanJobs::~ScanJobs() {
    // All are asked before the first is waited for.
    for (const auto& [id, job] : jobs_) job->stop(SCAN_SHUT_DOWN);
}

std::string ScanJobs::newId() const {
    const std::lock_guard lock(mutex_);
    const std::string time = std::to_string(tools_.clock.now());
    for (int i = 1;; ++i) {
        std::string id = time + "_" + std::to_string(i);
        if (jobs_.count(id) == 0 && ended_.count(id) == 0) return id;
    }
}

void ScanJobs::reap() {
    std::map<std::string, std::shared_ptr<ScanJob>> jobs;
    {
        const std::lock_guard lock(mutex_);
        jobs = jobs_;
    }
    for (const auto& [id, job] : jobs) {
        // What could not be stored is kept in memory and tried again.
        if (job->running() || !job->settle()) continue;
        const std::lock_guard lock(mutex_);
        ended_[id] = job->status();
        jobs_.erase(id);
    }
}

ScanStart ScanJobs::start(const ScanRequest& request) {
    cleanUp();
    const std::lock_guard changing(changing_);
    if (const auto other = running(request.kind)) return {false, other->id, "A scan of this kind is already running."};
    const std::string id = newId();
    const auto job = std::make_shared<ScanJob>(id, request, tools_);
    const std::lock_guard lock(mutex_);
    jobs_[id] = job;
    return {true, id, ""};
}

bool ScanJobs::stop(const std::string& id) {
    const std::lock_guard lock(mutex_);
    const auto found = jobs_.find(id);
    if (found == jobs_.end() || !found->second->running()) return false;
    found->second->stop(SCAN_STOPPED);
    return true;
}

bool ScanJobs::pause(const std::string& id, bool paused) {
    const std::lock_guard lock(mutex_);
    const auto found = jobs_.find(id);
    if (found == jobs_.end() || !found->second->running()) return false;
    found->second->pause(paused);
    return true;
}

bool ScanJobs::wait(const std::string& id, int milliseconds) const {
    std::shared_ptr<ScanJob> job;
    {
        const std::lock_guard lock(mutex_);
        const auto found = jobs_.find(id);
        if (found == jobs_.end()) return true;
        job = found->second;
    }
    return job->wait(milliseconds);
}

std::optional<ScanStatus> ScanJobs::status(const std::string& id) const {
    const std::lock_guard lock(mutex_);
    if (const auto job = jobs_.find(id); job != jobs_.end()) return job->second->status();
    if (const auto ended = ended_.find(id); ended != ended_.end()) return ended->second;
    return std::nullopt;
}

std::vector<ScanFind> ScanJobs::finds(const std::string& id, std::size_t from, std::size_t count) const {
    {
        const std::lock_guard lock(mutex_);
        if (const auto job = jobs_.find(id); job != jobs_.end()) return job->second->finds(from, count);
        if (ended_.count(id) == 0) return {};
    }
    return history_.finds(id, from, count);
}

std::vector<ScanFind> ScanJobs::leftFinds(const std::string& id, std::size_t count) const {
    {
        const std::lock_guard lock(mutex_);
        if (const auto job = jobs_.find(id); job != jobs_.end()) return job->second->leftFinds(count);
        if (ended_.count(id) == 0) return {};
    }
    return history_.leftFinds(id, count);
}

std::optional<ScanStatus> ScanJobs::running(ScanKind kind) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, job] : jobs_) {
        ScanStatus status = job->status();
        if (status.kind == kind && status.state == ScanState::RUNNING) return status;
    }
    return std::nullopt;
}

std::vector<ScanStatus> ScanJobs::history() const {
    std::vector<ScanStatus> all;
    const std::lock_guard lock(mutex_);
    for (const auto& [id, job] : jobs_) all.push_back(job->status());
    for (const auto& [id, status] : ended_) all.push_back(status);
    std::stable_sort(all.begin(), all.end(), [](const ScanStatus& a, const ScanStatus& b) {
        return std::pair(a.started, a.id) > std::pair(b.started, b.id);
    });
    return all;
}

std::string ScanJobs::problem() const {
    const std::lock_guard lock(mutex_);
    const bool stored =
        std::all_of(jobs_.begin(), jobs_.end(), [](const auto& job) { return job.second->status().saved; });
    return stored ? "" : "The results of a scan could not be stored; it is tried again.";
}

/// By number and not by age, which a clock that was set wrongly makes up.
std::vector<std::string> ScanJobs::superfluous() const {
    std::vector<const ScanStatus*> newestFirst;
    const std::lock_guard lock(mutex_);
    for (const auto& [id, status] : ended_) newestFirst.push_back(&status);
    std::sort(newestFirst.begin(), newestFirst.end(), [](const ScanStatus* a, const ScanStatus* b) {
        return std::pair(a->started, a->id) > std::pair(b->started, b->id);
    });
    std::vector<std::string> ids;
    std::set<std::pair<ScanKind, bool>> seen;
    std::map<ScanKind, std::size_t> ofKind;
    for (const ScanStatus* const status : newestFirst) {
        // However many files are scanned singly, the last scan by the schedule is still there.
        const bool first = seen.insert({status->kind, status->state == ScanState::COMPLETED}).second;
        if (++ofKind[status->kind] > settings_.historyLimit && !first) ids.push_back(status->id);
    }
    return ids;
}

void ScanJobs::cleanUp() {
    const std::lock_guard changing(changing_);
    reap();
    forgetSuperfluous();
}

void ScanJobs::forgetSuperfluous() {
    for (const std::string& id : superfluous()) {
        {
            const std::lock_guard lock(mutex_);
            ended_.erase(id);
        }
        history_.forget(id);
    }
}

}  // namespace keldra
