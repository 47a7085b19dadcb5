#pragma once

#include "norv/ipc_message.h"
#include "norv/protocol/parameters.h"
#include "norv/protocol/scans.h"
#include "service/server/caller.h"
#include "service/server/parts.h"

#include <string>

namespace keldra {

struct HalfLogon;
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
bool setRealtimeScan(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                     const IPCMessage& request, IPCMessage& reply);
bool getManualScan(ConfigurationStore& configuration, IPCMessage& reply);
bool setManualScan(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                   const IPCMessage& request, IPCMessage& reply);
bool getScheduledScan(ConfigurationStore& configuration, IPCMessage& reply);
bool setScheduledScan(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                      const IPCMessage& request, IPCMessage& reply);
bool getScheduledUpdate(ConfigurationStore& configuration, IPCMessage& reply);
bool setScheduledUpdate(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                        const IPCMessage& request, IPCMessage& reply);

// handlers_scan.cpp
bool getVirusTypes(IPCMessage& reply);
bool startManualScan(ConfigurationStore& configuration, ScanJobs& scans, IPCMessage& reply);
bool stopScan(ScanJobs& scans, const IPCMessage& request);
bool getScanStatus(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply);
bool startPathScan(ConfigurationStore& configuration, ScanJobs& scans, const IPCMessage& request, IPCMessage& reply);
bool getScanFinds(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply);
bool pauseScan(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply);
bool resumeScan(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply);
bool getScanHistory(ScanJobs& scans, IPCMessage& reply);

/// What the list of scans tells of one.
protocol::ScanSummary summaryOf(const ScanStatus& status);

// handlers_folders.cpp
bool listFolders(ConfigurationStore& configuration, const IPCMessage& request, IPCMessage& reply);
bool previewExcludes(ConfigurationStore& configuration, const IPCMessage& request, IPCMessage& reply);

// handlers_shares.cpp
bool getSettings(ConfigurationStore& configuration, const Caller& caller, const IPCMessage& request, IPCMessage& reply);
bool setSettings(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                 const IPCMessage& request, IPCMessage& reply);
bool listShareProposals(IPCMessage& reply);

// handlers_session.cpp
/// Counts an attempt to log on; refuses it when there were too many.
bool admitLogOn(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply);
bool admitCode(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply);
bool logOn(ConfigurationStore& configuration, PasswordFile& password, LogonGuard& guard, SessionStore& sessions,
           SecondFactor& factor, PendingLogons& pending, const IPCMessage& request, IPCMessage& reply);
/// The end of a log-on that was right in every respect; not a handler.
bool openSession(LogonGuard& guard, SessionStore& sessions, const HalfLogon& logon, IPCMessage& reply);
bool logOff(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply);
bool checkSession(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply);
bool watchSession(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply);
bool listSessions(PasswordFile& password, SessionStore& sessions, LogonGuard& guard, const Caller& caller,
                  IPCMessage& reply);
bool endSession(SessionStore& sessions, const IPCMessage& request, IPCMessage& reply);
bool liftBlock(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply);
bool admitPasswordChange(LogonGuard& guard, const Caller& caller, IPCMessage& reply);
bool changePassword(PasswordFile& password, LogonGuard& guard, SessionStore& sessions, const Caller& caller,
                    const IPCMessage& request, IPCMessage& reply);
/// A password was set beside the service, which only takes note of it.
bool notePassword(PasswordFile& password, const IPCMessage& request, IPCMessage& reply);

// handlers_account.cpp
bool logOnSecondStep(LogonGuard& guard, SessionStore& sessions, SecondFactor& factor, PendingLogons& pending,
                     const IPCMessage& request, IPCMessage& reply);
bool getSecondFactor(SecondFactor& factor, PasswordFile& password, IPCMessage& reply);
bool beginSecondFactor(SecondFactor& factor, PasswordFile& password, LogonGuard& guard, const Caller& caller,
                       const IPCMessage& request, IPCMessage& reply);
bool confirmSecondFactor(SecondFactor& factor, const Caller& caller, const IPCMessage& request, IPCMessage& reply);
bool removeSecondFactor(SecondFactor& factor, PasswordFile& password, LogonGuard& guard, const Caller& caller,
                        const IPCMessage& request, IPCMessage& reply);

// handlers_quarantine.cpp
bool listQuarantine(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply);
bool showQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply);
bool restoreQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply);
bool deleteQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply);
bool listTrusted(Quarantine& quarantine, IPCMessage& reply);
bool trustQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply);
bool distrust(Quarantine& quarantine, RealtimeScan& realtime, const IPCMessage& request, IPCMessage& reply);

// handlers_update.cpp
bool startManualUpdate(ConfigurationStore& configuration, Updater& updater, const IPCMessage& request,
                       IPCMessage& reply);
bool getUpdateStatus(Updater& updater, IPCMessage& reply);

// handlers_status.cpp
bool getServiceStatus(const Witnesses& witnesses, const Running& running, Updater& updater, Scheduler& scheduler,
                      IPCMessage& reply);

// handlers_clients.cpp
bool noteShareUser(ShareUsers& users, const IPCMessage& request, IPCMessage& reply);
bool forgetShareUser(ShareUsers& users, const IPCMessage& request);

// handlers_events.cpp
bool listEvents(EventJournal& events, const IPCMessage& request, IPCMessage& reply);
bool getDailyFigures(EventJournal& events, const IPCMessage& request, IPCMessage& reply);

// handlers_metrics.cpp
bool getMetrics(const Witnesses& witnesses, const Running& running, const ScanMetrics& scans,
                const ClientServer& clients, const IPCMessage& request, IPCMessage& reply);

// handlers_notices.cpp
bool getNotices(Notices& notices, const Caller& caller, const IPCMessage& request, IPCMessage& reply);
bool setNotices(Notices& notices, const IPCMessage& request, IPCMessage& reply);
bool testNotices(Notices& notices, const IPCMessage& request, IPCMessage& reply);

}  // namespace handlers

}  // namespace keldra
