#include "service/server/protection_facts.h"

#include "norv/au_config.h"
#include "norv/scan_config.h"
#include "service/access/session_store.h"
#include "service/base/clock.h"
#include "service/base/files.h"
#include "service/events/event_journal.h"
#include "service/quarantine/quarantine.h"
#include "service/scanning/scan_jobs.h"
#include "service/server/happenings.h"
#include "service/settings/configuration_store.h"

#include <algorithm>

namespace keldra {

namespace {

using Facts = ProtectionFacts;

/// A scan takes some, a save two.
constexpr std::size_t FILES_WANTED = 16;

Facts::Signatures signaturesOf(const EngineState& state) {
    if (state.database == EngineState::Database::LOADED) return Facts::Signatures::LOADED;
    if (state.reloading) return Facts::Signatures::LOADING;
    return state.database == EngineState::Database::FAILED ? Facts::Signatures::FAILED : Facts::Signatures::NONE;
}

void addSignatures(const EngineState& state, Facts& facts) {
    facts.signatures = signaturesOf(state);
    facts.realSignatures = state.signatures - std::min(state.signatures, state.signaturesForTrying);
    facts.officialTime = state.officialTime();
    facts.signatureLoadFailed = !state.message.empty() && state.database == EngineState::Database::LOADED;
    facts.signatureMessage = state.message;
    facts.missingSignatureFolders = state.missingFolders;
    facts.scannerWorks = state.guarding;
}

void addUpdates(const UpdateMemory& updates, const NORVConfig& config, Facts& facts) {
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

void addScans(const std::vector<ScanStatus>& scans, Facts& facts) {
    for (const ScanStatus& scan : scans) {
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
}

void addRealtime(const RealtimeState& state, Facts& facts) {
    facts.realtimeWanted = state.wanted;
    facts.realtimeGuards = state.guarding;
    facts.realtimeHanging = state.hanging;
    facts.realtimeMessage = state.message;
}

void addDisks(const SlowFacts& slow, Facts& facts) {
    facts.roots = slow.roots;
    facts.missingRoots = slow.missingRoots;
    facts.emptyRoots = slow.emptyRoots;
    facts.hangingRoot = slow.hangingPath;
    facts.stateFree = slow.stateFree;
    facts.stateSize = slow.stateSize;
    facts.untreated = slow.untreated;
    facts.untreatedExample = slow.untreatedExample;
}

void addQuarantine(const QuarantineUse& use, Facts& facts) {
    facts.quarantineUsed = use.bytes;
    facts.quarantineLimit = use.limits.bytes;
    facts.quarantineFiles = use.files;
    facts.quarantineMostFiles = use.limits.files;
    facts.quarantineRefuses = use.full || use.room(facts.stateFree, facts.stateSize) == 0;
    facts.quarantineAnnounced = use.announced;
    facts.quarantineRemoval = facts.now + use.nextRemoval;
}

}  // namespace

Testimony hear(const Witnesses& witnesses) {
    return {witnesses.engine.state(), witnesses.realtime.state(), witnesses.disks.facts(), witnesses.scans.history()};
}

Protection protectionOf(const Witnesses& witnesses, const Testimony& heard) {
    Facts facts;
    facts.now = witnesses.clock.now();
    facts.configurationUsable = witnesses.configuration.error().empty();
    facts.configurationError = witnesses.configuration.error();
    const auto config = witnesses.configuration.snapshot();
    facts.scanScheduled = NORVScheduledScanConfig(*config).frequency != NORVScheduledScanConfig::OFF;
    addSignatures(heard.engine, facts);
    addUpdates(witnesses.happenings.updates(), *config, facts);
    addScans(heard.scans, facts);
    for (const std::string& problem : {witnesses.configuration.saveProblem(), witnesses.scans.problem(),
                                       witnesses.events.problem(), witnesses.sessions.problem()})
        if (!problem.empty()) facts.unsaved.push_back(problem);
    addRealtime(heard.realtime, facts);
    addDisks(heard.disks, facts);
    addQuarantine(witnesses.quarantine.use(), facts);
    facts.openFilesShort = !canOpenMore(FILES_WANTED);
    return judgeProtection(facts);
}

}  // namespace keldra
