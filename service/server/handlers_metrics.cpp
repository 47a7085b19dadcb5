#include "norv/protocol/metrics.h"
#include "service/access/session_store.h"
#include "service/base/version.h"
#include "service/clients/client_server.h"
#include "service/metrics/metric_text.h"
#include "service/metrics/process_metrics.h"
#include "service/metrics/scan_metrics.h"
#include "service/metrics/server_metrics.h"
#include "service/quarantine/quarantine.h"
#include "service/server/handlers.h"
#include "service/server/happenings.h"
#include "service/server/protection_facts.h"
#include "service/settings/configuration_store.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace keldra::handlers {

namespace {

void addVerdict(const Protection& verdict, ServerFacts& facts) {
    facts.level = protectionLevelName(verdict.level);
    // A thing may be wrong in several places.
    for (const ProtectionReason& reason : verdict.reasons) {
        std::pair<std::string, std::string> row{reason.code, protectionLevelName(reason.severity)};
        if (std::find(facts.reasons.begin(), facts.reasons.end(), row) == facts.reasons.end())
            facts.reasons.push_back(std::move(row));
    }
}

void addEngine(const EngineState& engine, ServerFacts& facts) {
    facts.engineVersion = engine.engineVersion;
    facts.databaseVersion = engine.databaseVersion;
    facts.signatures = engine.signatures;
    facts.signatureTime = engine.officialTime();
    facts.scannerWorks = engine.guarding;
    facts.scannerRestarts = engine.restarts;
    facts.scannersHanging = engine.hanging;
}

void addRealtime(const RealtimeState& realtime, ServerFacts& facts) {
    facts.realtimeWanted = realtime.wanted;
    facts.realtimeGuards = realtime.guarding;
    facts.realtimeHanging = realtime.hanging;
    std::copy(realtime.waiting.begin(), realtime.waiting.end(), facts.realtimeWaiting.begin());
}

/// `scans`: newest first.
void addScans(const std::vector<ScanStatus>& scans, ServerFacts& facts) {
    for (const ScanStatus& scan : scans) {
        if (scan.kind == ScanKind::PATH || scan.state != ScanState::COMPLETED) continue;
        const std::size_t kind = scan.kind == ScanKind::MANUAL ? 0 : 1;
        if (facts.lastScans[kind] != 0) continue;
        facts.lastScans[kind] = scan.ended;
        facts.lastNotScanned[kind] = scan.skipped + scan.notFullyScanned;
    }
}

ServerFacts factsOf(const Witnesses& witnesses) {
    const Testimony heard = hear(witnesses);
    ServerFacts facts;
    facts.version = VERSION;
    addVerdict(protectionOf(witnesses, heard), facts);
    addEngine(heard.engine, facts);
    addRealtime(heard.realtime, facts);
    addScans(heard.scans, facts);
    const UpdateMemory updates = witnesses.happenings.updates();
    facts.lastUpdate = updates.succeeded;
    facts.updateFailed = updates.failed;
    facts.sessions = witnesses.sessions.size();
    const QuarantineUse use = witnesses.quarantine.use();
    facts.quarantineFiles = use.files;
    facts.quarantineBytes = use.bytes;
    facts.quarantineLimit = use.limits.bytes;
    facts.untreated = heard.disks.untreated;
    facts.stateFree = heard.disks.stateFree;
    return facts;
}

}  // namespace

bool getMetrics(const Witnesses& witnesses, const Running& running, const ScanMetrics& scans,
                const ClientServer& clients, const IPCMessage& request, IPCMessage& reply) {
    const std::string format = protocol::read<protocol::GetMetrics>(request).format;
    const bool open = format == protocol::FORMAT_OPENMETRICS;
    if (!open && format != protocol::FORMAT_PROMETHEUS) return refuse("There is no such format of metrics.", reply);
    ServerFacts facts = factsOf(witnesses);
    facts.started = running.since;
    const ClientServerState served = clients.state();
    facts.clientConnections = served.connections;
    facts.clientScans = served.scans;
    std::vector<prometheus::MetricFamily> families = serverMetrics(facts);
    for (auto&& more : {scans.Collect(), processMetrics()}) families.insert(families.end(), more.begin(), more.end());
    write(reply, protocol::Metrics{open ? openMetricsText(families) : prometheusText(families)});
    return true;
}

}  // namespace keldra::handlers
