#include "norv/au_config.h"
#include "norv/log.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/settings.h"
#include "norv/scan_config.h"
#include "service/server/handlers.h"
#include "service/server/service.h"
#include "service/settings/settings_check.h"
#include "service/tree/share_roots.h"

#include <algorithm>
#include <type_traits>

namespace keldra::handlers {

namespace {

template <typename Record>
bool give(const Record& record, IPCMessage& reply) {
    write(reply, protocol::Settings<Record>{record});
    return true;
}

/// What is wrong with a record that is to take the place of `before`.
template <typename Record>
std::string faultOf(const NORVConfig& config, const Record& before, Record& record) {
    std::string fault = checkSettings(record);
    if constexpr (std::is_base_of_v<NORVScanConfig, Record>) {
        if (fault.empty()) fault = checkNewFolders(config, before.scanPaths, record.scanPaths);
    }
    return fault;
}

/// Lays what a request carries over the stored record, so that what it does not mention is kept.
template <typename Record>
bool store(Service& service, const IPCMessage& request, IPCMessage& reply) {
    constexpr const char* name = protocol::SettingsPlace<Record>::PARAMETER;
    std::string fault;
    const auto change = [&](NORVConfig& config) {
        Record before(config);
        if constexpr (std::is_same_v<Record, NORVManualScanConfig>) {
            // More could be saved once.
            before.scanWorkers = std::min(before.scanWorkers, protocol::MAX_WORKERS);
        }
        protocol::SetSettings<Record> wanted{before};
        const bool parsed = request.hasParam(name) && protocol::read(request, wanted);
        fault = parsed ? faultOf(config, before, wanted.settings) : "The settings are malformed.";
        if (!fault.empty()) return false;
        storeRecord(config, wanted.settings);
        return true;
    };
    const SaveOutcome outcome = service.configuration().update(change);
    if (!fault.empty()) NORV_LOG(NORV_LOG_WARNING, "%s refused: %s", name, fault.c_str());
    if (!saved(outcome)) refuse(fault.empty() ? "The settings could not be saved." : fault, reply);
    if (outcome == SaveOutcome::SAVED_WITHOUT_BACKUP)
        write(reply, protocol::SettingsSaved{protocol::SettingsSaved::DISK_FULL});
    return saved(outcome);
}

}  // namespace

bool getRealtimeScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    NORVRealtimeScanConfig record(*service.configuration().snapshot());
    const RealtimeState state = service.realtime().state();
    record.serviceRunning = state.serviceRuns();
    record.kernelHookModuleLoaded = state.kernelAllows;
    return give(record, reply);
}

bool setRealtimeScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVRealtimeScanConfig>(service, request, reply);
}

bool getManualScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    return give(NORVManualScanConfig(*service.configuration().snapshot()), reply);
}

bool setManualScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVManualScanConfig>(service, request, reply);
}

bool getScheduledScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    return give(NORVScheduledScanConfig(*service.configuration().snapshot()), reply);
}

bool setScheduledScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVScheduledScanConfig>(service, request, reply);
}

bool getScheduledUpdate(Service& service, const IPCMessage&, IPCMessage& reply) {
    return give(NORVScheduledAUConfig(*service.configuration().snapshot()), reply);
}

bool setScheduledUpdate(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVScheduledAUConfig>(service, request, reply);
}

}  // namespace keldra::handlers
