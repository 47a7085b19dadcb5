#include "norv/au_config.h"
#include "norv/log.h"
#include "norv/path_list.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/settings.h"
#include "norv/scan_config.h"
#include "service/base/paths.h"
#include "service/realtime/realtime_scan.h"
#include "service/server/chronicle.h"
#include "service/server/folder_questions.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"
#include "service/settings/settings_check.h"
#include "service/tree/share_roots.h"

#include <algorithm>
#include <memory>
#include <type_traits>
#include <vector>

namespace keldra::handlers {

namespace {

template <typename Record>
bool give(const Record& record, IPCMessage& reply) {
    write(reply, protocol::Settings<Record>{record});
    return true;
}

/// The folders of `after` that were not there before, each of which must lie in a share.
std::vector<std::string> newFolders(const std::string& before, const std::string& after) {
    const std::vector<std::string> known = normalPaths(splitPathList(before));
    std::vector<std::string> folders = normalPaths(splitPathList(after));
    std::erase_if(folders, [&known](const std::string& path) {
        return std::find(known.begin(), known.end(), path) != known.end();
    });
    return folders;
}

/// What is wrong with a record that is to take the place of `before`. Settles it before anything is locked: a folder's
/// file system may not answer.
template <typename Record>
std::string faultOf(const std::shared_ptr<const NORVConfig>& config, const Record& before, Record& record,
                    FolderQuestions& folders) {
    std::string fault = checkSettings(record);
    if constexpr (std::is_base_of_v<NORVScanConfig, Record>) {
        if (fault.empty() && !newFolders(before.scanPaths, record.scanPaths).empty())
            fault = folders.ask([config, before = before.scanPaths, after = record.scanPaths] {
                return checkNewFolders(*config, before, after);
            });
    }
    return fault;
}

template <typename Record>
bool sameFolders(const Record& a, const Record& b) {
    if constexpr (std::is_base_of_v<NORVScanConfig, Record>) return a.scanPaths == b.scanPaths;
    return true;
}

/// Lays what a request carries over the stored record, so that what it does not mention is kept. Returns what is wrong
/// with it, empty when nothing is.
template <typename Record>
std::string layOver(const NORVConfig& config, const IPCMessage& request, Record& record) {
    record = Record(config);
    // More could be saved once.
    if constexpr (std::is_same_v<Record, NORVManualScanConfig>)
        record.scanWorkers = std::min(record.scanWorkers, protocol::MAX_WORKERS);
    protocol::SetSettings<Record> wanted{record};
    const bool parsed = request.hasParam(protocol::SettingsPlace<Record>::PARAMETER) && protocol::read(request, wanted);
    if (parsed) record = wanted.settings;
    return parsed ? std::string() : "The settings are malformed.";
}

template <typename Record>
bool store(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller, const IPCMessage& request,
           IPCMessage& reply) {
    const auto config = configuration.snapshot();
    Record checked;
    std::string fault = layOver(*config, request, checked);
    if (fault.empty()) fault = faultOf(config, Record(*config), checked, folders);
    SaveResult result{SaveOutcome::REFUSED, fault};
    if (fault.empty()) {
        // Others may have been stored meanwhile: what this request does not mention is theirs.
        const auto change = [&](NORVConfig& stored) {
            Record record;
            fault = layOver(stored, request, record);
            if (fault.empty()) fault = checkSettings(record);
            if (fault.empty() && !sameFolders(record, checked)) fault = "The folders were changed by somebody else.";
            if (fault.empty()) storeRecord(stored, record);
            return fault.empty();
        };
        result = configuration.update(change, actorOf(caller));
    }
    if (!fault.empty()) result.reason = fault;
    if (!saved(result.outcome)) {
        NORV_LOG(NORV_LOG_WARNING, "%s refused: %s", protocol::SettingsPlace<Record>::PARAMETER, result.reason.c_str());
        return refuse(result.reason, reply);
    }
    if (result.outcome == SaveOutcome::SAVED_WITHOUT_BACKUP)
        write(reply, protocol::SettingsSaved{protocol::SettingsSaved::DISK_FULL});
    return true;
}

}  // namespace

bool getRealtimeScan(ConfigurationStore& configuration, RealtimeScan& realtime, IPCMessage& reply) {
    NORVRealtimeScanConfig record(*configuration.snapshot());
    const RealtimeState state = realtime.state();
    record.serviceRunning = state.serviceRuns();
    record.kernelHookModuleLoaded = state.kernelAllows;
    return give(record, reply);
}

bool setRealtimeScan(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                     const IPCMessage& request, IPCMessage& reply) {
    return store<NORVRealtimeScanConfig>(configuration, folders, caller, request, reply);
}

bool getManualScan(ConfigurationStore& configuration, IPCMessage& reply) {
    return give(NORVManualScanConfig(*configuration.snapshot()), reply);
}

bool setManualScan(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                   const IPCMessage& request, IPCMessage& reply) {
    return store<NORVManualScanConfig>(configuration, folders, caller, request, reply);
}

bool getScheduledScan(ConfigurationStore& configuration, IPCMessage& reply) {
    return give(NORVScheduledScanConfig(*configuration.snapshot()), reply);
}

bool setScheduledScan(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                      const IPCMessage& request, IPCMessage& reply) {
    return store<NORVScheduledScanConfig>(configuration, folders, caller, request, reply);
}

bool getScheduledUpdate(ConfigurationStore& configuration, IPCMessage& reply) {
    return give(NORVScheduledAUConfig(*configuration.snapshot()), reply);
}

bool setScheduledUpdate(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                        const IPCMessage& request, IPCMessage& reply) {
    return store<NORVScheduledAUConfig>(configuration, folders, caller, request, reply);
}

}  // namespace keldra::handlers
