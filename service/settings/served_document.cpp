#include "service/settings/served_document.h"

namespace keldra {

namespace {

void putComponents(NORVConfig& config, const ComponentVersions& versions) {
    config.setValue("Varnel", "EngineVersion", versions.engineVersion);
    config.setValue("Varnel", "EngineLastUpdate", versions.engineLastUpdate);
    config.setValue("Varnel", "VirusPatternVersion", versions.virusPatternVersion);
    config.setValue("Varnel", "VirusPatternLastUpdate", versions.virusPatternLastUpdate);
    config.setValue("Varnel", "SpywarePatternVersion", versions.spywarePatternVersion);
    config.setValue("Varnel", "SpywarePatternLastUpdate", versions.spywarePatternLastUpdate);
}

std::string printed(const NORVConfig& stored, const ServedState& state) {
    NORVConfig config(stored);
    config.setValue("Configuration", "VarPath", state.varPath);
    putComponents(config, state.versions);
    config.setValue("RealtimeScan", "serviceRunning", state.realtimeRunning ? "1" : "0");
    config.setValue("RealtimeScan", "kernelHookModuleLoaded", state.kernelAllows ? "1" : "0");
    // The console has no use for it, and its pages are seen by more people than this file.
    if (!configValueOr(config, "Varnel", "ProxyPassword", std::string()).empty())
        config.setValue("Varnel", "ProxyPassword", "");
    return config.toText();
}

}  // namespace

std::string ServedDocument::text(const std::shared_ptr<const NORVConfig>& stored, const ServedState& state) {
    const std::lock_guard lock(mutex_);
    if (stored != stored_ || state != state_) {
        text_ = printed(*stored, state);
        stored_ = stored;
        state_ = state;
    }
    return text_;
}

}  // namespace keldra
