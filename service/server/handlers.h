#pragma once

#include "norv/ipc_message.h"
#include "norv/protocol/parameters.h"
#include "norv/protocol/scans.h"
#include "service/server/caller.h"
#include "service/server/parts.h"

#include <string>

namespace keldra {

struct ScanStatus;

/// The handlers of the command table (see service/server/command_table.h), one function per row, each with the parts
/// that it works on. `docs/protocol.md` lists the parameters of each.
namespace handlers {

/// Refuses a request; `why` is an English sentence.
inline bool refuse(const std::string& why, IPCMessage& reply) {
    reply.addParam(protocol::MESSAGE, why);
    return false;
}

// handlers_configuration.cpp
bool checkConfiguration();
bool getConfiguration(ConfigurationStore& configuration, VarFolder& varFolder, ServedDocument& document,
                      Updater& updater, RealtimeScan& realtime, IPCMessage& reply);

// handlers_settings.cpp
bool getRealtimeScan(ConfigurationStore& configuration, RealtimeScan& realtime, IPCMessage& reply);
bool setRealtimeScan(ConfigurationStore& configuration, FolderQuestions& folders, const IPCMessage& request,
                     IPCMessage& reply);
bool getManualScan(ConfigurationStore& configuration, IPCMessage& reply);
bool setManualScan(ConfigurationStore& configuration, FolderQuestions& folders, const IPCMessage& request,
                   IPCMessage& reply);
bool getScheduledScan(ConfigurationStore& configuration, IPCMessage& reply);
bool setScheduledScan(ConfigurationStore& configuration, FolderQuestions& folders, const IPCMessage& request,
                      IPCMessage& reply);
bool getScheduledUpdate(ConfigurationStore& configuration, IPCMessage& reply);
bool setScheduledUpdate(ConfigurationStore& configuration, FolderQuestions& folders, const IPCMessage& request,
                        IPCMessage& reply);

// handlers_scan.cpp
bool getVirusTypes(Service& service, const IPCMessage& request, IPCMessage& reply);
bool startManualScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool stopScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getScanStatus(Service& service, const IPCMessage& request, IPCMessage& reply);
bool startPathScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getScanFinds(Service& service, const IPCMessage& request, IPCMessage& reply);
bool pauseScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool resumeScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getScanHistory(Service& service, const IPCMessage& request, IPCMessage& reply);

/// What the list of scans tells of one.
protocol::ScanSummary summaryOf(const ScanStatus& status);

// handlers_folders.cpp
bool listFolders(ConfigurationStore& configuration, const IPCMessage& request, IPCMessage& reply);
bool previewExcludes(ConfigurationStore& configuration, const IPCMessage& request, IPCMessage& reply);

// handlers_shares.cpp
bool getSettings(ConfigurationStore& configuration, IPCMessage& reply);
bool setSettings(ConfigurationStore& configuration, FolderQuestions& folders, const IPCMessage& request,
                 IPCMessage& reply);
bool listShareProposals(IPCMessage& reply);

// handlers_session.cpp
/// Counts an attempt to log on; refuses it when there were too many.
bool admitLogOn(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply);
bool logOn(ConfigurationStore& configuration, PasswordFile& password, LogonGuard& guard, SessionStore& sessions,
           const IPCMessage& request, IPCMessage& reply);
bool logOff(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply);
bool checkSession(PasswordFile& password, SessionStore& sessions, const IPCMessage& request);
bool watchSession(PasswordFile& password, SessionStore& sessions, const IPCMessage& request);
bool listSessions(PasswordFile& password, SessionStore& sessions, LogonGuard& guard, const Caller& caller,
                  IPCMessage& reply);
bool endSession(SessionStore& sessions, const IPCMessage& request, IPCMessage& reply);
bool liftBlock(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply);
bool admitPasswordChange(LogonGuard& guard, const Caller& caller, IPCMessage& reply);
bool changePassword(PasswordFile& password, LogonGuard& guard, const Caller& caller, const IPCMessage& request,
                    IPCMessage& reply);

// handlers_quarantine.cpp
bool listQuarantine(Service& service, const IPCMessage& request, IPCMessage& reply);
bool showQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply);
bool restoreQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply);
bool deleteQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply);
bool listTrusted(Service& service, const IPCMessage& request, IPCMessage& reply);
bool trustQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply);
bool distrust(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_update.cpp
bool startManualUpdate(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getUpdateStatus(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_status.cpp
bool getServiceStatus(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_events.cpp
bool listEvents(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getDailyFigures(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_notices.cpp
bool getNotices(Service& service, const IPCMessage& request, IPCMessage& reply);
bool setNotices(Service& service, const IPCMessage& request, IPCMessage& reply);
bool testNotices(Service& service, const IPCMessage& request, IPCMessage& reply);

}  // namespace handlers

}  // namespace keldra
