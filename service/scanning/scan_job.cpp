#include "service/scanning/scan_job.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "service/base/paths.h"
#include "service/engine/virus_types.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

namespace keldra {

namespace {

constexpr unsigned int USUAL_WORKERS = 2;
constexpr unsigned int MOST_WORKERS = 32;
constexpr int64_t SAVE_EVERY = 5000;  // milliseconds
constexpr auto ENGINE_POLL = std::chrono::milliseconds(50);

ScanLane laneOf(ScanKind kind) {
    if (kind == ScanKind::MANUAL) return ScanLane::MANUAL;
    return kind == ScanKind::SCHEDULED ? ScanLane::SCHEDULED : ScanLane::PATH;
}

std::vector<std::string> rootsOf(const ScanRequest& request) {
    return normalPaths(request.roots.empty() ? splitPathList(request.settings.scanPaths) : request.roots);
}

}  // namespace

ScanJob::ScanJob(std::string id, ScanRequest request, const ScanTools& tools)
    : request_(std::move(request)),
      tools_(tools),
      selector_(request_.settings),
      options_(scanOptionsOf(request_.settings, laneOf(request_.kind))),
      findsFile_(tools.history.openFinds(id)),
      stopMessage_(SCAN_SHUT_DOWN),
      saved_(tools.clock.steadyMilliseconds()) {
    status_.id = std::move(id);
    status_.kind = request_.kind;
    status_.state = ScanState::RUNNING;
    status_.started = tools.clock.now();
    tools_.history.save(status_);
    begin();
}

ScanJob::~ScanJob() { stop_.request_stop(); }

ScanStatus ScanJob::status() const {
    const std::lock_guard lock(mutex_);
    ScanStatus copy = status_;
    if (copy.state == ScanState::RUNNING) copy.total = std::max(counted_.load(), copy.scanned + copy.skipped);
    return copy;
}

std::vector<ScanFind> ScanJob::finds(std::size_t from, std::size_t count) const {
    const std::lock_guard lock(mutex_);
    if (from >= finds_.size()) return {};
    const auto begin = finds_.begin() + static_cast<std::ptrdiff_t>(from);
    return {begin, begin + static_cast<std::ptrdiff_t>(std::min(count, finds_.size() - from))};
}

std::vector<ScanFind> ScanJob::leftFinds(std::size_t count) const {
    std::vector<ScanFind> left;
    const std::lock_guard lock(mutex_);
    for (auto find = finds_.begin(); find != finds_.end() && left.size() < count; ++find)
        if (find->left) left.push_back(*find);
    return left;
}

void ScanJob::stop(const char* message) {
    {
        const std::lock_guard lock(mutex_);
        stopMessage_ = message;
    }
    stop_.request_stop();
}

const char* ScanJob::stopMessage() const {
    const std::lock_guard lock(mutex_);
    return stopMessage_;
}

bool ScanJob::wait(int milliseconds) const {
    std::unique_lock lock(mutex_);
    return ended_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                           [this] { return status_.state != ScanState::RUNNING; });
}

WalkPlan ScanJob::plan() const {
    WalkPlan plan;
    plan.roots = rootsOf(request_);
    plan.shareRoots = request_.shareRoots;
    plan.excludeFolders = splitPathList(request_.settings.excludePaths);
    plan.ownFolders = tools_.ownFolders;
    plan.excludePatterns = splitPathList(request_.settings.excludePatterns);
    plan.wanted = [this](const std::string& name) { return selector_.byName(name); };
    return plan;
}

unsigned int ScanJob::workers() const {
    const unsigned int cores = std::max(1U, std::thread::hardware_concurrency());
    return request_.workers == 0 ? std::min(USUAL_WORKERS, cores) : std::min(request_.workers, MOST_WORKERS);
}

void ScanJob::begin() try {
    thread_ = std::jthread([this] { run(); });
} catch (const std::system_error& error) {
    NORV_LOG(NORV_LOG_ERROR, "The scan has no thread to run on: %s", error.what());
    abandon();
}

void ScanJob::run() {
    guarded([this] {
        NORV_LOG(NORV_LOG_INFO, "%s scan %s started", scanKindName(request_.kind).c_str(), status().id.c_str());
        if (!prepare()) return;
        walk();
        if (!broken_) finishAfterWalk();
    });
    if (broken_) abandon();
}

/// What is thrown on a thread of the scan, such as for want of memory, ends the scan and not the service.
void ScanJob::guarded(const std::function<void()>& body) {
    try {
        body();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "A scan ends by an error: %s", error.what());
        broken_ = true;
        stop_.request_stop();
    }
}

/// A further thread. Without it the scan takes longer, that is all.
std::jthread ScanJob::helper(std::function<void(const std::stop_token&)> body) {
    try {
        return std::jthread(
            [this, body = std::move(body)](const std::stop_token& own) { guarded([&body, &own] { body(own); }); });
    } catch (const std::system_error& error) {
        NORV_LOG(NORV_LOG_WARNING, "A scan has fewer threads than wanted: %s", error.what());
        return {};
    }
}

void ScanJob::abandon() {
    try {
        return finish(ScanState::FAILED, SCAN_BROKEN);
    } catch (const std::exception&) {
        // Not even that; who waits for its end must be told all the same.
    }
    const std::lock_guard lock(mutex_);
    status_.state = ScanState::FAILED;
    ended_.notify_all();
}

/// Waits for signatures that are just being loaded. False when the scan ended here.
bool ScanJob::prepare() {
    EngineState state = tools_.engine.state();
    while (state.database != EngineState::Database::LOADED && state.reloading && !stopping()) {
        std::this_thread::sleep_for(ENGINE_POLL);
        state = tools_.engine.state();
    }
    if (stopping()) {
        finish(ScanState::STOPPED, stopMessage());
    } else if (state.database != EngineState::Database::LOADED) {
        finish(ScanState::FAILED, SCAN_NO_SIGNATURES);
    } else if (rootsOf(request_).empty()) {
        finish(ScanState::FAILED, SCAN_NO_FOLDER);
    } else {
        return true;
    }
    return false;
}

/// This thread is one of the workers, so that a single one need not pass files from thread to thread.
void ScanJob::walk() {
    const WalkPlan where = plan();
    FileWalk files(where, [this](const std::string& path, const std::string& reason) { skip(path, reason); });
    // Counting goes ahead of the scan; once all files are visited its result is not needed any more.
    const std::jthread counter = helper([this, &where](const std::stop_token& own) {
        countFiles(
            where, [this] { ++counted_; }, own);
    });
    std::vector<std::jthread> others;
    others.reserve(workers());
    for (unsigned int i = 1; i < workers(); ++i)
        others.push_back(helper([this, &files](const std::stop_token&) { work(files); }));
    // What it throws must stop the others before they are waited for.
    guarded([this, &files] { work(files); });
}

void ScanJob::work(FileWalk& files) {
    const auto knownClean = [this](int folder, const struct stat& status) { return passKnown(folder, status); };
    while (const std::optional<ScannedFile> file = files.nextOpened(stop_.get_token(), knownClean)) scanFile(*file);
}

/// Whether the file is known to be clean; it is counted then, as if it had been opened.
bool ScanJob::passKnown(int folder, const struct stat& status) {
    if (!tools_.engine.knowsClean(folder, status, options_)) return false;
    const std::lock_guard lock(mutex_);
    ++status_.scanned;
    status_.bytes += static_cast<uint64_t>(status.st_size);
    return true;
}

void ScanJob::scanFile(const ScannedFile& file) {
    {
        const std::lock_guard lock(mutex_);
        status_.currentFile = file.path;
    }
    ScanResult result{Verdict::CLEAN, "", ""};
    if (selector_.byContent(file.file.get()))
        result = tools_.engine.scan(file.file.get(), file.path, options_, stop_.get_token());
    if (stopping() && result.verdict == Verdict::NOT_FULLY_SCANNED) return;
    account(file, result);
    saveNowAndThen();
}

void ScanJob::account(const ScannedFile& file, const ScanResult& result) {
    if (result.verdict == Verdict::FAILED) {
        skip(file.path, result.detail);
        return report({file.path, false, "", "", result.detail});
    }
    if (result.verdict == Verdict::INFECTED) {
        ActionOutcome outcome;
        outcome.text = "only reported";
        if (request_.act) outcome = tools_.actions.perform(file, result, request_.settings, status().id);
        if (!request_.act) NORV_LOG(NORV_LOG_WARNING, "%s in %s", result.signature.c_str(), file.path.c_str());
        const bool left = !outcome.done || outcome.performed == Action::PASS;
        report({file.path, true, result.signature, virusTypeOf(result.signature), outcome.text, left});
    }
    if (result.verdict == Verdict::NOT_FULLY_SCANNED) {
        NORV_LOG(NORV_LOG_INFO, "%s was not fully scanned: %s", file.path.c_str(), result.detail.c_str());
        report({file.path, false, "", "", result.detail});
    }
    const std::lock_guard lock(mutex_);
    ++status_.scanned;
    status_.bytes += static_cast<uint64_t>(file.status.st_size);
    if (result.verdict == Verdict::INFECTED) ++status_.found;
    if (result.verdict == Verdict::NOT_FULLY_SCANNED) ++status_.notFullyScanned;
}

void ScanJob::report(ScanFind find) {
    const std::lock_guard lock(mutex_);
    // Half of the room is for what is infected: nobody hides that behind any number of encrypted files.
    if (finds_.size() >= tools_.findLimit || (!find.infected && unsureReports_ >= tools_.findLimit / 2)) return;
    if (!find.infected) ++unsureReports_;
    ScanHistory::append(findsFile_, find);
    finds_.push_back(std::move(find));
}

void ScanJob::skip(const std::string& path, const std::string& reason) {
    NORV_LOG(NORV_LOG_WARNING, "%s was skipped: %s", path.c_str(), reason.c_str());
    const std::vector<std::string> roots = rootsOf(request_);
    const std::lock_guard lock(mutex_);
    ++status_.skipped;
    if (std::find(roots.begin(), roots.end(), path) != roots.end()) ++rootsSkipped_;
}

/// So that a scan cut short by a crash has nearly right counts.
void ScanJob::saveNowAndThen() {
    const int64_t now = tools_.clock.steadyMilliseconds();
    {
        const std::lock_guard lock(mutex_);
        if (now - saved_ < SAVE_EVERY) return;
        saved_ = now;
    }
    tools_.history.save(status());
}

void ScanJob::finishAfterWalk() {
    std::unique_lock lock(mutex_);
    const bool nothing = status_.scanned == 0 && rootsSkipped_ > 0 && rootsSkipped_ == status_.skipped;
    lock.unlock();
    if (stopping()) return finish(ScanState::STOPPED, stopMessage());
    if (nothing) return finish(ScanState::FAILED, SCAN_NOTHING_READABLE);
    finish(ScanState::COMPLETED, SCAN_COMPLETE);
}

/// The result is on disk before anybody is told that the scan has ended.
void ScanJob::finish(ScanState state, const char* message) {
    ScanStatus last = status();
    last.state = state;
    last.message = message;
    last.currentFile.clear();
    last.ended = tools_.clock.now();
    if (state == ScanState::COMPLETED) last.total = last.scanned + last.skipped;
    tools_.history.save(last);
    NORV_LOG(NORV_LOG_INFO, "%s scan %s ended: %s %llu scanned, %llu infected, %llu not fully scanned, %llu skipped",
             scanKindName(last.kind).c_str(), last.id.c_str(), message, static_cast<unsigned long long>(last.scanned),
             static_cast<unsigned long long>(last.found), static_cast<unsigned long long>(last.notFullyScanned),
             static_cast<unsigned long long>(last.skipped));
    const std::lock_guard lock(mutex_);
    status_ = std::move(last);
    ended_.notify_all();
}

}  // namespace keldra
