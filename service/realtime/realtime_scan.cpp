#include "service/realtime/realtime_scan.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "service/base/paths.h"
#include "service/engine/extension_list.h"
#include "service/engine/virus_types.h"
#include "service/tree/scanned_file.h"

#include <filesystem>
#include <utility>

namespace keldra {

struct RealtimeScan::Policy {
    explicit Policy(const NORVRealtimeScanConfig& record)
        : settings(record),
          options(scanOptionsOf(record)),
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

RealtimeScan::RealtimeScan(ScanEngine& engine, Actions& actions, std::vector<std::string> ownFolders)
    : engine_(engine),
      actions_(actions),
      ownFolders_(std::move(ownFolders)),
      policy_(std::make_shared<const Policy>(NORVRealtimeScanConfig())),
      listener_(
          {[this](int fd, const std::string& path, std::stop_token stop) { return scan(fd, path, std::move(stop)); },
           [this](int fd, const std::string& path, const OnAccessAnswer& answer) { act(fd, path, answer); }}) {}

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

OnAccessAnswer RealtimeScan::scan(int fd, const std::string& path, std::stop_token stop) {
    const auto policy = this->policy();
    // Not to be remembered: the file may get a name that is scanned.
    if (!policy->concerns(fd, path)) return {.deny = false, .act = false, .cacheable = false, .find = {}};
    const ScanResult result = engine_.scan(fd, path, policy->options, std::move(stop));
    if (result.verdict == Verdict::FAILED)
        NORV_LOG(NORV_LOG_WARNING, "Real-time scan of %s: %s", path.c_str(), result.detail.c_str());
    if (result.verdict != Verdict::INFECTED)
        return {.deny = false, .act = false, .cacheable = result.verdict == Verdict::CLEAN, .find = {}};
    NORV_LOG(NORV_LOG_WARNING, "Real-time scan found %s in %s", result.signature.c_str(), path.c_str());
    const ActionPlan plan = actionPlanOf(policy->settings, virusTypeOf(result.signature));
    return {.deny = plan.first != Action::PASS, .act = true, .cacheable = false, .find = result.signature};
}

void RealtimeScan::act(int fd, const std::string& path, const OnAccessAnswer& answer) {
    const auto file = scannedFileAt(fd, path);
    if (!file) {
        NORV_LOG(NORV_LOG_WARNING, "%s is gone, nothing can be done about it", path.c_str());
        return;
    }
    const ScanResult result{.verdict = Verdict::INFECTED, .signature = answer.find, .detail = {}};
    const ActionOutcome outcome = actions_.perform(*file, result, policy()->settings, "realtime");
    NORV_LOG(NORV_LOG_WARNING, "%s: %s", path.c_str(), outcome.text.c_str());
}

RealtimeState RealtimeScan::state() const {
    using enum RealtimeState::Trouble;
    RealtimeState state;
    std::string refusal;
    state.kernelAllows = OnAccess::kernelAllows(&refusal);
    state.wanted = policy()->settings.scanDirection != 0;
    if (!state.wanted) return state.message = refusal, state;
    if (!state.kernelAllows)
        state.trouble = KERNEL, state.message = refusal;
    else if (!listener_.running())
        state.trouble = LISTENER, state.message = listener_.problem();
    else
        lookAtEngine(state);
    state.guarding = state.trouble == NONE;
    return state;
}

/// Without signatures every file is answered as one whose scan takes too long.
void RealtimeScan::lookAtEngine(RealtimeState& state) const {
    const EngineState engine = engine_.state();
    if (engine.database == EngineState::Database::LOADED) return;
    state.trouble = engine.reloading ? RealtimeState::Trouble::LOADING : RealtimeState::Trouble::NO_SIGNATURES;
    state.message = engine.reloading ? "Not guarding yet: the signatures are being loaded."
                                     : "Not guarding: there are no signatures that can be used.";
}

}  // namespace keldra
