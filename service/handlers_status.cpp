#include "service/handlers.h"
#include "service/service.h"
#include "service/version.h"

#include <optional>

namespace keldra::handlers {

namespace {

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
    reply.addParam("RealtimeRunning", state.running ? 1 : 0);
    reply.addParam("RealtimeAllowed", state.kernelAllows ? 1 : 0);
    reply.addParam("RealtimeMessage", state.problem);
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
    reply.addParam("Quarantined", service.quarantine().list().size());
    reply.addParam("UpdateRunning", service.updater().status().running ? 1 : 0);
    addEngine(service, reply);
    addRealtime(service, reply);
    addScans(service, reply);
    addSchedules(service, reply);
    return true;
}

}  // namespace keldra::handlers
