#include "norv/protocol/status.h"
#include "service/access/session_store.h"
#include "service/base/version.h"
#include "service/quarantine/quarantine.h"
#include "service/scanning/scan_jobs.h"
#include "service/schedules/scheduler.h"
#include "service/server/handlers.h"
#include "service/server/protection_facts.h"
#include "service/settings/configuration_store.h"
#include "service/updates/updater.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

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

void addEngine(const EngineState& state, protocol::ServiceStatus& status) {
    status.database = databaseText(state.database);
    status.databaseVersion = state.databaseVersion;
    status.databaseTime = state.databaseTime;
    status.engineVersion = state.engineVersion;
    status.signatures = state.signatures;
    status.reloading = state.reloading;
    status.engineMessage = state.message;
}

void addRealtime(const RealtimeState& state, protocol::ServiceStatus& status) {
    status.realtimeRunning = state.guarding;
    status.realtimeAllowed = state.kernelAllows;
    status.realtimeMessage = state.message;
    status.realtimeHanging = state.hanging;
}

void addVerdict(const Protection& verdict, protocol::ServiceStatus& status) {
    status.verdict = protectionLevelName(verdict.level);
    for (const ProtectionReason& reason : verdict.reasons)
        status.reasons.push_back(
            {reason.code, protectionLevelName(reason.severity), reason.text, reason.detail, reason.count, reason.unit});
}

void addQuarantine(const QuarantineUse& use, const SlowFacts& disks, std::int64_t now,
                   protocol::ServiceStatus& status) {
    status.quarantined = use.files;
    status.quarantineBytes = use.bytes;
    status.quarantineLimit = use.limits.bytes;
    const std::uint64_t room = use.room(disks.stateFree, disks.stateSize);
    if (room != UINT64_MAX) status.quarantineRoom = room;
    status.quarantineOldest = use.oldest;
    status.quarantineAnnounced = use.announced;
    status.quarantineAnnouncedBytes = use.announcedBytes;
    status.quarantineRemoval = use.announced == 0 ? 0 : now + use.nextRemoval;
}

/// The newest scan of each kind, so that none hides another.
void addScans(const std::vector<ScanStatus>& scans, protocol::ServiceStatus& status) {
    std::set<ScanKind> seen;
    for (const ScanStatus& scan : scans)
        if (seen.insert(scan.kind).second) status.lastScans.push_back(summaryOf(scan));
}

void addRunning(const ScanJobs& scans, protocol::ServiceStatus& status) {
    const auto idOf = [&scans](ScanKind kind) -> std::optional<std::string> {
        const auto running = scans.running(kind);
        return running ? std::optional(running->id) : std::nullopt;
    };
    status.runningManual = idOf(ScanKind::MANUAL);
    status.runningScheduled = idOf(ScanKind::SCHEDULED);
    status.runningPath = idOf(ScanKind::PATH);
}

void addSchedules(const Scheduler& scheduler, protocol::ServiceStatus& status) {
    status.nextScan = scheduler.nextScan().value_or(0);
    status.nextUpdate = scheduler.nextUpdate().value_or(0);
    status.lastScan = scheduler.lastScan();
    status.lastUpdate = scheduler.lastUpdate();
}

}  // namespace

bool getServiceStatus(const Witnesses& witnesses, const Running& running, Updater& updater, Scheduler& scheduler,
                      IPCMessage& reply) {
    const bool good = witnesses.configuration.refresh();
    const Testimony heard = hear(witnesses);
    protocol::ServiceStatus status;
    status.version = VERSION;
    status.uptime = running.clock.now() - running.since;
    status.configuration = good ? "" : witnesses.configuration.error();
    status.sessions = witnesses.sessions.size();
    status.stateNotWritten = witnesses.sessions.problem();
    addQuarantine(witnesses.quarantine.use(), heard.disks, running.clock.now(), status);
    status.updateRunning = updater.status().running;
    status.untreated = heard.disks.untreated;
    status.untreatedScan = heard.disks.untreatedScan;
    addEngine(heard.engine, status);
    addRealtime(heard.realtime, status);
    addRunning(witnesses.scans, status);
    addScans(heard.scans, status);
    addVerdict(protectionOf(witnesses, heard), status);
    addSchedules(scheduler, status);
    write(reply, status);
    return true;
}

}  // namespace keldra::handlers
