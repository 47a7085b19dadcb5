#include "service/scanning/scan_job.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "norv/protocol/scans.h"
#include "service/base/paths.h"
#include "service/engine/virus_types.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

namespace keldra {

namespace {

constexpr unsigned int USUAL_WORKERS = 2;
constexpr std::uint64_t STAT_BLOCK = 512;    // bytes, whatever the file system's own are
constexpr std::uint64_t INLINE_FILE = 4096;  // bytes
constexpr auto ENGINE_POLL = std::chrono::milliseconds(50);

ScanLane laneOf(ScanKind kind) {
    if (kind == ScanKind::MANUAL) return ScanLane::MANUAL;
    return kind == ScanKind::SCHEDULED ? ScanLane::SCHEDULED : ScanLane::PATH;
}

std::vector<std::string> rootsOf(const ScanRequest& request) {
    return normalPaths(request.roots.empty() ? splitPathList(request.settings.scanPaths) : request.roots);
}

ScanStatus firstStatus(std::string id, ScanKind kind, const Clock& clock) {
    ScanStatus status;
    status.id = std::move(id);
    status.kind = kind;
    status.state = ScanState::RUNNING;
    status.started = clock.now();
    return status;
}

/// What the disk holds of a file: nothing for the holes of a sparse one. Some file systems keep small files elsewhere
/// than in blocks.
std::uint64_t storedBytes(const struct stat& status) {
    const auto size = static_cast<std::uint64_t>(std::max<off_t>(0, status.st_size));
    const auto blocks = static_cast<std::uint64_t>(std::max<blkcnt_t>(0, status.st_blocks)) * STAT_BLOCK;
    return blocks == 0 && size <= INLINE_FILE ? size : std::min(size, blocks);
}

std::uint64_t storedBytes(const FoundFile& file) {
    struct stat status {};
    const bool known = ::fstatat(file.folder->get(), file.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    return known && S_ISREG(status.st_mode) ? storedBytes(status) : 0;
}

/// Of the calling thread: others go first, at the processor and at the disks.
void lowerPriority() {
    constexpr int NICE = 10;
    constexpr int IOPRIO_WHO_PROCESS = 1;
    constexpr int IOPRIO_IDLE = 3 << 13;
    const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
    if (::setpriority(PRIO_PROCESS, thread, NICE) != 0 ||
        ::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_IDLE) != 0)
        NORV_LOG(NORV_LOG_WARNING, "A scan keeps its usual priority: %s", errorText(errno).c_str());
}

}  // namespace

ScanJob::ScanJob(std::string id, ScanRequest request, const ScanTools& tools)
    : request_(std::move(request)),
      tools_(tools),
      selector_(request_.settings),
      options_(scanOptionsOf(request_.settings, laneOf(request_.kind))),
      pause_(request_.window, tools.clock),
      report_(firstStatus(std::move(id), request_.kind, tools.clock), tools.history, tools.clock, tools.findLimit,
              tools.onFind),
      stopMessage_(SCAN_SHUT_DOWN) {
    begin();
}

ScanJob::~ScanJob() { stop_.request_stop(); }

ScanStatus ScanJob::status() const {
    ScanStatus status = report_.status();
    if (status.state == ScanState::RUNNING) status.paused = pause_.why();
    return status;
}

bool ScanJob::running() const {
    const std::lock_guard lock(mutex_);
    return !ended_;
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
    return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return ended_; });
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
    return request_.workers == 0 ? std::min(USUAL_WORKERS, cores) : std::min(request_.workers, protocol::MAX_WORKERS);
}

void ScanJob::begin() try {
    thread_ = std::jthread([this] { run(); });
} catch (const std::exception& error) {
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
    } catch (const std::exception& error) {
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
    ended_ = true;
    changed_.notify_all();
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
        if (request_.lowPriority) lowerPriority();
        const auto count = [this](const FoundFile* file) { report_.counted(file ? storedBytes(*file) : 0); };
        countFiles(where, count, own);
        if (!own.stop_requested()) report_.countingDone();
    });
    std::vector<std::jthread> others;
    others.reserve(workers());
    for (unsigned int i = 1; i < workers(); ++i)
        others.push_back(helper([this, &files](const std::stop_token&) { work(files); }));
    // What it throws must stop the others before they are waited for.
    guarded([this, &files] { work(files); });
}

void ScanJob::work(FileWalk& files) {
    if (request_.lowPriority) lowerPriority();
    const auto knownClean = [this](int folder, const struct stat& status) { return passKnown(folder, status); };
    for (;;) {
        waitWhilePaused();
        const std::optional<ScannedFile> file = files.nextOpened(stop_.get_token(), knownClean);
        if (!file) return;
        scanFile(*file);
    }
}

void ScanJob::waitWhilePaused() {
    pause_.wait(stop_.get_token());
    report_.paused(pause_.pausedFor());
}

/// Whether the file is known to be clean; it is counted then, as if it had been opened.
bool ScanJob::passKnown(int folder, const struct stat& status) {
    waitWhilePaused();
    if (stopping() || !tools_.engine.knowsClean(folder, status, options_)) return false;
    report_.scanned({Verdict::CLEAN, "", ""}, storedBytes(status), {});
    return true;
}

void ScanJob::scanFile(const ScannedFile& file) {
    report_.begin(file.path);
    ScanResult result{Verdict::CLEAN, "", ""};
    if (selector_.byContent(file.file.get()))
        result = tools_.engine.scan(file.file.get(), file.path, options_, stop_.get_token());
    if (stopping() && result.verdict == Verdict::NOT_FULLY_SCANNED) return;
    account(file, result);
    report_.saveNowAndThen();
}

ScanFind ScanJob::infectedFind(const ScannedFile& file, const ScanResult& result) {
    ActionOutcome outcome;
    outcome.text = "only reported";
    if (request_.act) outcome = tools_.actions.perform(file, result, request_.settings, report_.status().id);
    if (!request_.act) NORV_LOG(NORV_LOG_WARNING, "%s in %s", result.signature.c_str(), file.path.c_str());
    ScanFind find;
    find.path = file.path;
    find.infected = true;
    find.signature = result.signature;
    find.type = virusTypeOf(result.signature);
    find.detail = outcome.text;
    find.left = !outcome.done || outcome.performed == Action::PASS;
    return find;
}

void ScanJob::account(const ScannedFile& file, const ScanResult& result) {
    const std::uint64_t bytes = storedBytes(file.status);
    if (result.verdict == Verdict::FAILED) return skip(file.path, result.detail, bytes);
    ScanFind find;
    if (result.verdict == Verdict::INFECTED) find = infectedFind(file, result);
    if (result.verdict == Verdict::NOT_FULLY_SCANNED) {
        NORV_LOG(NORV_LOG_INFO, "%s was not fully scanned: %s", file.path.c_str(), result.detail.c_str());
        find.path = file.path;
        find.infected = false;
        find.detail = result.detail;
    }
    report_.scanned(result, bytes, std::move(find));
}

void ScanJob::skip(const std::string& path, const std::string& reason, std::uint64_t bytes) {
    const std::vector<std::string> roots = rootsOf(request_);
    if (std::find(roots.begin(), roots.end(), path) != roots.end()) ++rootsSkipped_;
    report_.skipped(path, reason, bytes);
}

bool ScanJob::settle() {
    // Its end was reached but could not be told, for want of memory.
    if (report_.status().state == ScanState::RUNNING) report_.finish(ScanState::FAILED, SCAN_BROKEN);
    return report_.settle();
}

void ScanJob::finishAfterWalk() {
    const ScanStatus status = report_.status();
    const bool nothing = status.scanned == 0 && rootsSkipped_ > 0 && rootsSkipped_ == status.skipped;
    if (stopping()) return finish(ScanState::STOPPED, stopMessage());
    if (nothing) return finish(ScanState::FAILED, SCAN_NOTHING_READABLE);
    finish(ScanState::COMPLETED, SCAN_COMPLETE);
}

void ScanJob::finish(ScanState state, const char* message) {
    report_.finish(state, message);
    if (tools_.onEnd) tools_.onEnd(report_.status());
    report_.tellEnd();
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

}  // namespace keldra
