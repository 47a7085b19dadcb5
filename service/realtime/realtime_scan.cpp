#include "service/realtime/realtime_scan.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "service/base/paths.h"
#include "service/engine/extension_list.h"
#include "service/tree/scanned_file.h"

#include <sys/stat.h>

#include <filesystem>
#include <utility>

namespace keldra {

struct RealtimeScan::Policy {
    explicit Policy(const NORVRealtimeScanConfig& record)
        : settings(record),
          options(scanOptionsOf(record, ScanLane::REALTIME)),
          selector(record),
          excludePatterns(splitPathList(record.excludePatterns)) {}

    bool concerns(int fd, const std::string& path) const {
        const std::string name = std::filesystem::path(path).filename();
        return selector.byName(name) && !matchesPattern(name, excludePatterns) && selector.byContent(fd);
    }

    const NORVRealtimeScanConfig settings;
    const ScanOptions options;
    const FileSelector selector;
    const std::vector<std::string> excludePatterns;
};

RealtimeScan::RealtimeScan(ScanEngine& engine, Actions& actions, std::vector<std::string> ownFolders, Report report)
    : engine_(engine),
      actions_(actions),
      report_(std::move(report)),
      ownFolders_(std::move(ownFolders)),
      policy_(std::make_shared<const Policy>(NORVRealtimeScanConfig())),
      listener_({[this](int fd, const std::string& path, const std::stop_token& stop) { return scan(fd, path, stop); },
                 [this](int fd, const std::string& path, const OnAccessAnswer& answer) { act(fd, path, answer); },
                 [this](int fd, const std::string& path, std::stop_token stop) {
                     return scanFound(fd, path, std::move(stop));
                 },
                 [this](pid_t pid) { return engine_.ownsProcess(pid); }}) {}

void RealtimeScan::configure(const NORVConfig& config) {
    const NORVRealtimeScanConfig record(config);
    {
        const std::lock_guard lock(mutex_);
        policy_ = std::make_shared<const Policy>(record);
    }
    OnAccessSettings settings = onAccessSettings(record);
    settings.ownFolders = ownFolders_;
    listener_.configure(settings);
    // After the new settings are in force, for what was scanned under the old ones.
    listener_.forgetClean();
}

std::shared_ptr<const RealtimeScan::Policy> RealtimeScan::policy() const {
    const std::lock_guard lock(mutex_);
    return policy_;
}

OnAccessAnswer RealtimeScan::scan(int fd, const std::string& path, const std::stop_token& stop) {
    const auto policy = this->policy();
    OnAccessAnswer answer;
    // Not to be remembered: the file may get a name that is scanned.
    if (!policy->concerns(fd, path)) return answer;
    const ScanResult result = engine_.scan(fd, path, policy->options, stop);
    if (result.verdict == Verdict::NOT_FULLY_SCANNED && !stop.stop_requested())
        tell({.path = path, .result = result, .outcome = {}});
    if (result.verdict == Verdict::FAILED) {
        answer.unscanned = result.detail.empty() ? "its scan failed" : result.detail;
        // What holds for this file only; that there are no signatures or no scanner is told for all of them at once.
        if (result.lasting) tell({.path = path, .result = result, .outcome = {}});
    }
    answer.cacheable = result.verdict == Verdict::CLEAN;
    if (result.verdict != Verdict::INFECTED) return answer;
    answer.deny = actionsOn(result.signature, policy->settings).first != Action::PASS;
    answer.act = true;
    answer.find = result.signature;
    return answer;
}

/// The task that found something in it may look into more than this one does, and do more about it.
OnAccessAnswer RealtimeScan::scanFound(int fd, const std::string& path, std::stop_token stop) {
    const ScanResult result = engine_.scan(fd, path, {.lane = ScanLane::REALTIME}, std::move(stop));
    OnAccessAnswer answer;
    answer.deny = result.verdict != Verdict::CLEAN;
    answer.find = result.signature.empty() ? result.detail : result.signature;
    return answer;
}

/// Whoever opens a file again and again must not fill what others read.
void RealtimeScan::tell(const RealtimeReport& report) {
    constexpr auto AGAIN = std::chrono::minutes(10);
    constexpr std::size_t MOST = 4096;
    constexpr unsigned MOST_UNSURE = 200;
    if (!report_) return;
    const auto now = std::chrono::steady_clock::now();
    {
        const std::lock_guard lock(mutex_);
        if (told_.size() >= MOST) told_.clear();
        const auto [last, first] =
            told_.try_emplace(report.path + '\n' + report.outcome.text + report.result.detail, now);
        if (!first && now - last->second < AGAIN) return;
        last->second = now;
        if (now - unsureSince_ >= AGAIN) unsureSince_ = now, unsure_ = 0;
        if (report.result.verdict != Verdict::INFECTED && ++unsure_ > MOST_UNSURE) return;
    }
    report_(report);
}

/// Of several who opened the same infected file at a time, one sees to it; the file is gone then.
void RealtimeScan::act(int fd, const std::string& path, const OnAccessAnswer& answer) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) return;
    const auto identity = std::pair{status.st_dev, status.st_ino};
    {
        const std::lock_guard lock(mutex_);
        if (!actedOn_.insert(identity).second) return;
    }
    if (const auto file = scannedFileAt(fd, path)) {
        const ScanResult result{.verdict = Verdict::INFECTED, .signature = answer.find, .detail = {}};
        const ActionOutcome outcome = actions_.perform(*file, result, policy()->settings, "realtime");
        tell({.path = path, .result = result, .outcome = outcome});
    }
    const std::lock_guard lock(mutex_);
    actedOn_.erase(identity);
}

RealtimeState RealtimeScan::state() const {
    using enum RealtimeState::Trouble;
    RealtimeState state;
    state.hanging = engine_.state().hanging;
    std::string refusal;
    state.kernelAllows = OnAccess::kernelAllows(&refusal);
    state.wanted = policy()->settings.scanDirection != 0;
    if (!state.wanted) return state.message = refusal, state;
    if (!state.kernelAllows)
        state.trouble = KERNEL, state.message = refusal;
    else
        lookAtListener(state);
    if (state.trouble == NONE) lookAtEngine(state);
    state.guarding = state.trouble == NONE;
    return state;
}

void RealtimeScan::lookAtListener(RealtimeState& state) const {
    const OnAccessStatus status = listener_.status();
    state.hanging += status.hanging;
    state.waiting = status.waiting;
    if (!status.running) state.trouble = RealtimeState::Trouble::LISTENER;
    if (status.exhausted) state.trouble = RealtimeState::Trouble::HANGING;
    state.message = status.problem;
    if (status.running && state.message.empty() && state.hanging > 0)
        state.message = "Some files were left aside, as their file system does not answer.";
}

/// Without signatures every file is answered as one whose scan takes too long.
void RealtimeScan::lookAtEngine(RealtimeState& state) const {
    using enum RealtimeState::Trouble;
    const EngineState engine = engine_.state();
    if (engine.database == EngineState::Database::LOADED && engine.guarding) return;
    if (engine.reloading)
        state.trouble = LOADING, state.message = "Not guarding yet: the signatures are being loaded.";
    else if (engine.database == EngineState::Database::LOADED)
        state.trouble = SCANNER, state.message = "Not guarding: the scanner is not at work.";
    else
        state.trouble = NO_SIGNATURES, state.message = "Not guarding: there are no signatures that can be used.";
}

}  // namespace keldra
