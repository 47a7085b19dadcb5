#pragma once

#include "norv/ipc_message.h"
#include "norv/protocol/parameters.h"
#include "norv/protocol/scans.h"

#include <string>

namespace keldra {

class Service;
struct ScanStatus;

/// The handlers of the command table (see service/server/command_table.h), one function per row. `docs/protocol.md`
/// lists the parameters of each.
namespace handlers {

/// Refuses a request; `why` is an English sentence.
inline bool refuse(const std::string& why, IPCMessage& reply) {
    reply.addParam(protocol::MESSAGE, why);
    return false;
}

// handlers_configuration.cpp
bool checkConfiguration(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getConfiguration(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_settings.cpp
bool getRealtimeScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool setRealtimeScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getManualScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool setManualScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getScheduledScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool setScheduledScan(Service& service, const IPCMessage& request, IPCMessage& reply);
bool getScheduledUpdate(Service& service, const IPCMessage& request, IPCMessage& reply);
bool setScheduledUpdate(Service& service, const IPCMessage& request, IPCMessage& reply);

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
bool listFolders(Service& service, const IPCMessage& request, IPCMessage& reply);
bool previewExcludes(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_shares.cpp
bool getSettings(Service& service, const IPCMessage& request, IPCMessage& reply);
bool setSettings(Service& service, const IPCMessage& request, IPCMessage& reply);
bool listShareProposals(Service& service, const IPCMessage& request, IPCMessage& reply);

// handlers_session.cpp
bool logOn(Service& service, const IPCMessage& request, IPCMessage& reply);
bool logOff(Service& service, const IPCMessage& request, IPCMessage& reply);
bool checkSession(Service& service, const IPCMessage& request, IPCMessage& reply);

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
