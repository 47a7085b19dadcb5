#include "service/server/protection_facts.h"

#include "service/server/service.h"

#include <algorithm>

namespace keldra {

namespace {

using Facts = ProtectionFacts;

Facts::Signatures signaturesOf(const EngineState& state) {
    if (state.database == EngineState::Database::LOADED) return Facts::Signatures::LOADED;
    if (state.reloading) return Facts::Signatures::LOADING;
    return state.database == EngineState::Database::FAILED ? Facts::Signatures::FAILED : Facts::Signatures::NONE;
}

void addSignatures(Service& service, Facts& facts) {
    const EngineState state = service.engine().state();
    facts.signatures = signaturesOf(state);
    facts.realSignatures = state.signatures - std::min(state.signatures, state.signaturesForTrying);
    facts.officialTime = state.officialTime();
    facts.signatureLoadFailed = !state.message.empty() && state.database == EngineState::Database::LOADED;
    facts.signatureMessage = state.message;
    facts.missingSignatureFolders = state.missingFolders;
    facts.scannerWorks = state.guarding;
}

void addUpdates(Service& service, const NORVConfig& config, Facts& facts) {
    const UpdateMemory updates = service.happenings().updates();
    facts.updatesScheduled = NORVScheduledAUConfig(config).kind != NORVScheduledAUConfig::OFF;
    facts.updateFailed = updates.failed;
    facts.updateMessage = updates.message;
    // Before there was a journal, what was fetched tells of an update.
    facts.lastUpdated = updates.succeeded != 0 ? updates.succeeded : facts.officialTime;
}

Facts::ScanEnd endOf(const ScanStatus& scan) {
    const std::string outcome = scanOutcome(scan);
    if (outcome == "completed") return Facts::ScanEnd::COMPLETED;
    if (outcome == "failed") return Facts::ScanEnd::FAILED;
    return outcome == "stopped" ? Facts::ScanEnd::STOPPED : Facts::ScanEnd::INTERRUPTED;
}

void addScans(Service& service, Facts& facts) {
    for (const ScanStatus& scan : service.scans().history()) {
        if (scan.kind == ScanKind::PATH || scan.state == ScanState::RUNNING) continue;
        if (facts.lastEnd == Facts::ScanEnd::NEVER) {
            facts.lastEnd = endOf(scan);
            facts.lastEndMessage = scan.message;
            facts.lastEndFile = scan.lastFile;
        }
        if (scan.state != ScanState::COMPLETED) continue;
        facts.lastScanned = scan.ended;
        facts.scannedFiles = scan.scanned + scan.skipped;
        facts.filesNotScanned = scan.skipped + scan.notFullyScanned;
        break;
    }
    for (const std::string& problem :
         {service.scans().problem(), service.events().problem(), service.sessions().problem()})
        if (!problem.empty()) facts.unsaved.push_back(problem);
}

void addRealtime(Service& service, Facts& facts) {
    const RealtimeState state = service.realtime().state();
    facts.realtimeWanted = state.wanted;
    facts.realtimeGuards = state.guarding;
    facts.realtimeHanging = state.hanging;
    facts.realtimeMessage = state.message;
}

void addDisks(Service& service, Facts& facts) {
    const SlowFacts slow = service.slowFacts().facts();
    facts.roots = slow.roots;
    facts.missingRoots = slow.missingRoots;
    facts.emptyRoots = slow.emptyRoots;
    facts.hangingRoot = slow.hangingPath;
    facts.stateFree = slow.stateFree;
    facts.stateSize = slow.stateSize;
    facts.untreated = slow.untreated;
    facts.untreatedExample = slow.untreatedExample;
    const QuarantineUse use = service.quarantine().use();
    facts.quarantineUsed = use.bytes;
    facts.quarantineLimit = use.limits.bytes;
}

}  // namespace

Protection protectionOf(Service& service) {
    Facts facts;
    facts.now = service.clock().now();
    facts.configurationUsable = service.configuration().error().empty();
    facts.configurationError = service.configuration().error();
    const auto config = service.configuration().snapshot();
    facts.scanScheduled = NORVScheduledScanConfig(*config).frequency != NORVScheduledScanConfig::OFF;
    addSignatures(service, facts);
    addUpdates(service, *config, facts);
    addScans(service, facts);
    addRealtime(service, facts);
    addDisks(service, facts);
    return judgeProtection(facts);
}

}  // namespace keldra
