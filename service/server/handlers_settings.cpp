#include "norv/au_config.h"
#include "norv/log.h"
#include "norv/scan_config.h"
#include "service/server/handlers.h"
#include "service/server/service.h"
#include "service/settings/settings_check.h"
#include "service/tree/share_roots.h"

#include <type_traits>

namespace keldra::handlers {

namespace {

/// Puts a record's text form into a reply.
template <typename Record>
bool give(const char* name, const Record& record, IPCMessage& reply) {
    reply.addParam(name, record);
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
bool store(Service& service, const char* name, const IPCMessage& request, IPCMessage& reply) {
    std::string fault;
    const auto change = [&](NORVConfig& config) {
        const Record before(config);
        Record record = before;
        const bool parsed = parseRecord(request.value<std::string>(name), record);
        fault = parsed ? faultOf(config, before, record) : "The settings are malformed.";
        if (!fault.empty()) return false;
        storeRecord(config, record);
        return true;
    };
    const SaveOutcome outcome = service.configuration().update(change);
    if (!fault.empty()) NORV_LOG(NORV_LOG_WARNING, "%s refused: %s", name, fault.c_str());
    if (!saved(outcome)) reply.addParam("Message", fault.empty() ? "The settings could not be saved." : fault);
    if (outcome == SaveOutcome::SAVED_WITHOUT_BACKUP) reply.addParam("BackupResult", "DiskFull");
    return saved(outcome);
}

}  // namespace

bool getRealtimeScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    NORVRealtimeScanConfig record(*service.configuration().snapshot());
    const RealtimeState state = service.realtime().state();
    record.serviceRunning = state.serviceRuns();
    record.kernelHookModuleLoaded = state.kernelAllows;
    return give("RealtimeScanConfig", record, reply);
}

bool setRealtimeScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVRealtimeScanConfig>(service, "RealtimeScanConfig", request, reply);
}

bool getManualScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    return give("ManualScanConfig", NORVManualScanConfig(*service.configuration().snapshot()), reply);
}

bool setManualScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVManualScanConfig>(service, "ManualScanConfig", request, reply);
}

bool getScheduledScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    return give("ScheduledScanConfig", NORVScheduledScanConfig(*service.configuration().snapshot()), reply);
}

bool setScheduledScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVScheduledScanConfig>(service, "ScheduledScanConfig", request, reply);
}

bool getScheduledUpdate(Service& service, const IPCMessage&, IPCMessage& reply) {
    return give("ScheduledAUConfig", NORVScheduledAUConfig(*service.configuration().snapshot()), reply);
}

bool setScheduledUpdate(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return store<NORVScheduledAUConfig>(service, "ScheduledAUConfig", request, reply);
}

}  // namespace keldra::handlers
