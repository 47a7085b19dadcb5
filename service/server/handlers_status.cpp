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
            return "loaded";
        case EngineState::Database::FAILED:
            return "failed";
        case EngineState::Database::NONE:
            break;
    }
    return "none";
}

void addEngine(Service& service, IPCMessage& reply) {
    const EngineState state = service.engine().state();
    reply.addParam("Database", databaseText(state.database));
    reply.addParam("DatabaseVersion", state.databaseVersion);
    reply.addParam("DatabaseTime", state.databaseTime);
    reply.addParam("EngineVersion", state.engineVersion);
    reply.addParam("Signatures", state.signatures);
    reply.addParam("Reloading", state.reloading ? 1 : 0);
    reply.addParam("EngineMessage", state.message);
}

void addRealtime(Service& service, IPCMessage& reply) {
    const RealtimeState state = service.realtime().state();
    reply.addParam("RealtimeRunning", state.guarding ? 1 : 0);
    reply.addParam("RealtimeAllowed", state.kernelAllows ? 1 : 0);
    reply.addParam("RealtimeMessage", state.message);
    reply.addParam("RealtimeHanging", state.hanging);
}

/// Whether a find is a danger that nobody has dealt with. Files made to try out scanners are left alone on purpose.
bool isUntreated(const ScanFind& find) {
    struct stat status {};
    return find.infected && find.left && find.type != "Test_Virus" && ::lstat(find.path.c_str(), &status) == 0 &&
           S_ISREG(status.st_mode);
}

/// Infected files that the newest scan of each kind left in place and that are still there.
void addUntreated(Service& service, IPCMessage& reply) {
    std::set<ScanKind> seen;
    std::set<std::string> untreated;
    std::string scan;
    for (const ScanStatus& status : service.scans().history()) {
        if (status.state == ScanState::RUNNING || !seen.insert(status.kind).second || status.found == 0) continue;
        for (const ScanFind& find : service.scans().leftFinds(status.id, MAX_FINDS_LOOKED_AT)) {
            if (!isUntreated(find)) continue;
            untreated.insert(find.path);
            if (scan.empty()) scan = status.id;
        }
    }
    reply.addParam("Untreated", untreated.size());
    reply.addParam("UntreatedScan", scan);
}

void addScans(Service& service, IPCMessage& reply) {
    for (const ScanKind kind : {ScanKind::MANUAL, ScanKind::SCHEDULED, ScanKind::PATH}) {
        const auto running = service.scans().running(kind);
        if (running) reply.addParam("Running_" + scanKindName(kind), running->id);
    }
}

void addSchedules(Service& service, IPCMessage& reply) {
    reply.addParam("NextScan", service.scheduler().nextScan().value_or(0));
    reply.addParam("NextUpdate", service.scheduler().nextUpdate().value_or(0));
    reply.addParam("LastScan", service.scheduler().lastScan());
    reply.addParam("LastUpdate", service.scheduler().lastUpdate());
}

}  // namespace

bool getServiceStatus(Service& service, const IPCMessage&, IPCMessage& reply) {
    const bool good = service.configuration().refresh();
    reply.addParam("Version", VERSION);
    reply.addParam("Uptime", service.clock().now() - service.startedAt());
    reply.addParam("Configuration", good ? "" : service.configuration().error());
    reply.addParam("Sessions", service.sessions().size());
    reply.addParam("Quarantined", service.quarantine().size());
    reply.addParam("UpdateRunning", service.updater().status().running ? 1 : 0);
    addEngine(service, reply);
    addRealtime(service, reply);
    addScans(service, reply);
    addUntreated(service, reply);
    addSchedules(service, reply);
    return true;
}

}  // namespace keldra::handlers
