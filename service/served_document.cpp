#include "service/served_document.h"

#include "service/service.h"

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

void putRunningState(NORVConfig& config, const RealtimeState& state) {
    config.setValue("RealtimeScan", "serviceRunning", state.running ? "1" : "0");
    config.setValue("RealtimeScan", "kernelHookModuleLoaded", state.kernelAllows ? "1" : "0");
}

}  // namespace

std::string servedDocument(Service& service, const NORVConfig& stored) {
    NORVConfig config(stored);
    config.setValue("Configuration", "VarPath", service.varPath());
    putComponents(config, service.updater().versions());
    putRunningState(config, service.realtime().state());
    // The console has no use for it, and its pages are seen by more people than this file.
    if (!configValueOr(config, "Varnel", "ProxyPassword", std::string()).empty())
        config.setValue("Varnel", "ProxyPassword", "");
    return config.toText();
}

}  // namespace keldra
