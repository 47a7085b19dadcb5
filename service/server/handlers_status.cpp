#include "norv/protocol/status.h"
#include "service/base/version.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

#include <sys/stat.h>

#include <optional>
#include <set>
#include <string>

namespace keldra::handlers {

namespace {

/// Reports of a scan that are looked at for each request.
constexpr std::size_t MAX_FINDS_LOOKED_AT = 1000;

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

/// Whether a find is a danger that nobody has dealt with. Files made to try out scanners are left alone on purpose.
bool isUntreated(const ScanFind& find) {
    struct stat status {};
    return find.infected && find.left && find.type != "Test_Virus" && ::lstat(find.path.c_str(), &status) == 0 &&
           S_ISREG(status.st_mode);
}

/// Infected files that the newest scan of each kind left in place and that are still there.
void addUntreated(Service& service, protocol::ServiceStatus& status) {
    std::set<ScanKind> seen;
    std::set<std::string> untreated;
    for (const ScanStatus& scan : service.scans().history()) {
        if (scan.state == ScanState::RUNNING || !seen.insert(scan.kind).second || scan.found == 0) continue;
        for (const ScanFind& find : service.scans().leftFinds(scan.id, MAX_FINDS_LOOKED_AT)) {
            if (!isUntreated(find)) continue;
            untreated.insert(find.path);
            if (status.untreatedScan.empty()) status.untreatedScan = scan.id;
        }
    }
    status.untreated = untreated.size();
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
    status.quarantined = service.quarantine().size();
    status.updateRunning = service.updater().status().running;
    addEngine(service, status);
    addRealtime(service, status);
    addScans(service, status);
    addUntreated(service, status);
    addSchedules(service, status);
    write(reply, status);
    return true;
}

}  // namespace keldra::handlers
