#include "norv/protocol/status.h"
#include "service/base/version.h"
#include "service/server/handlers.h"
#include "service/server/protection_facts.h"
#include "service/server/service.h"

#include <optional>
#include <set>
#include <string>

namespace keldra::handlers {

namespace {

const char* databaseText(EngineState::Database database) {
    switch (database) {
        case EngineState::Database::LOADED:
            return protocol::DATABASE_LOADED;
        case EngineState::Database::FAILED:
            return protocol::DATABASE_FAILED;
        case EngineState::Database::NONE:
            break;
    }
    return protocol::DATABASE_NONE;
}

void addEngine(Service& service, protocol::ServiceStatus& status) {
    const EngineState state = service.engine().state();
    status.database = databaseText(state.database);
    status.databaseVersion = state.databaseVersion;
    status.databaseTime = state.databaseTime;
    status.engineVersion = state.engineVersion;
    status.signatures = state.signatures;
    status.reloading = state.reloading;
    status.engineMessage = state.message;
}

void addRealtime(Service& service, protocol::ServiceStatus& status) {
    const RealtimeState state = service.realtime().state();
    status.realtimeRunning = state.guarding;
    status.realtimeAllowed = state.kernelAllows;
    status.realtimeMessage = state.message;
    status.realtimeHanging = state.hanging;
}

void addVerdict(Service& service, protocol::ServiceStatus& status) {
    const Protection verdict = protectionOf(service);
    status.verdict = protectionLevelName(verdict.level);
    for (const ProtectionReason& reason : verdict.reasons)
        status.reasons.push_back(
            {reason.code, protectionLevelName(reason.severity), reason.text, reason.detail, reason.count});
    const SlowFacts slow = service.slowFacts().facts();
    status.untreated = slow.untreated;
    status.untreatedScan = slow.untreatedScan;
}

/// The newest scan of each kind, so that none hides another.
void addLastScans(Service& service, protocol::ServiceStatus& status) {
    std::set<ScanKind> seen;
    for (const ScanStatus& scan : service.scans().history())
        if (seen.insert(scan.kind).second) status.lastScans.push_back(summaryOf(scan));
}

void addScans(Service& service, protocol::ServiceStatus& status) {
    const auto idOf = [&service](ScanKind kind) -> std::optional<std::string> {
        const auto running = service.scans().running(kind);
        return running ? std::optional(running->id) : std::nullopt;
    };
    status.runningManual = idOf(ScanKind::MANUAL);
    status.runningScheduled = idOf(ScanKind::SCHEDULED);
    status.runningPath = idOf(ScanKind::PATH);
}

void addSchedules(Service& service, protocol::ServiceStatus& status) {
    status.nextScan = service.scheduler().nextScan().value_or(0);
    status.nextUpdate = service.scheduler().nextUpdate().value_or(0);
    status.lastScan = service.scheduler().lastScan();
    status.lastUpdate = service.scheduler().lastUpdate();
}

}  // namespace

bool getServiceStatus(Service& service, const IPCMessage&, IPCMessage& reply) {
    const bool good = service.configuration().refresh();
    protocol::ServiceStatus status;
    status.version = VERSION;
    status.uptime = service.clock().now() - service.startedAt();
    status.configuration = good ? "" : service.configuration().error();
    status.sessions = service.sessions().size();
    status.stateNotWritten = service.sessions().problem();
    status.quarantined = service.quarantine().size();
    status.updateRunning = service.updater().status().running;
    addEngine(service, status);
    addRealtime(service, status);
    addScans(service, status);
    addLastScans(service, status);
    addVerdict(service, status);
    addSchedules(service, status);
    write(reply, status);
    return true;
}

}  // namespace keldra::handlers
