#include "service/verdict/protection.h"

#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace keldra {
namespace {

constexpr std::int64_t NOW = 1'700'000'000;
constexpr std::int64_t DAY = 86400;

/// A server about which there is nothing to say.
ProtectionFacts wellGuarded() {
    ProtectionFacts facts;
    facts.now = NOW;
    facts.signatures = ProtectionFacts::Signatures::LOADED;
    facts.realSignatures = 8'000'000;
    facts.officialTime = NOW - DAY;
    facts.updatesScheduled = facts.scanScheduled = facts.realtimeWanted = facts.realtimeGuards = true;
    facts.lastUpdated = facts.lastScanned = NOW - DAY;
    facts.lastEnd = ProtectionFacts::ScanEnd::COMPLETED;
    facts.scannedFiles = 5000;
    facts.roots = 2;
    facts.stateFree = std::uint64_t{100} << 30U;
    facts.stateSize = std::uint64_t{500} << 30U;
    return facts;
}

struct Row {
    std::string code;
    ProtectionLevel level;
    std::function<void(ProtectionFacts&)> spoil;
    std::string detail;
    std::uint64_t count = 0;
};

TEST(ProtectionTest, EachThingThatSpeaksAgainstItIsTheOnlyReasonAndStandsInTheHandbook) {
    using F = ProtectionFacts;
    using enum ProtectionLevel;
    const std::vector<Row> rows{
        {"no_signatures", UNPROTECTED, [](F& f) { f.realSignatures = 0; }, ""},
        {"no_signatures", UNPROTECTED, [](F& f) { f.signatures = F::Signatures::NONE; }, ""},
        {"signatures_unusable", UNPROTECTED,
         [](F& f) { f.signatures = F::Signatures::FAILED, f.signatureMessage = "torn"; }, "torn"},
        {"scanner_down", UNPROTECTED, [](F& f) { f.scannerWorks = false; }, ""},
        {"no_shares", UNPROTECTED, [](F& f) { f.roots = 0; }, ""},
        {"shares_gone", UNPROTECTED,
         [](F& f) {
             f.missingRoots = {"/a", "/b"};
         },
         "/a", 2},
        {"nothing_on", UNPROTECTED, [](F& f) { f.realtimeWanted = f.scanScheduled = false; }, ""},
        {"realtime_not_guarding", UNPROTECTED, [](F& f) { f.realtimeGuards = false, f.realtimeMessage = "no"; }, "no"},
        {"signatures_outdated", UNPROTECTED, [](F& f) { f.officialTime = NOW - 31 * DAY; }, "", 31},
        {"untreated", ATTENTION, [](F& f) { f.untreated = 3, f.untreatedExample = "/a/x"; }, "/a/x", 3},
        {"signatures_loading", ATTENTION, [](F& f) { f.signatures = F::Signatures::LOADING; }, ""},
        {"signatures_not_renewed", ATTENTION, [](F& f) { f.signatureLoadFailed = true; }, ""},
        {"signature_folder_missing", ATTENTION, [](F& f) { f.missingSignatureFolders = {"/s"}; }, "/s", 1},
        {"signatures_aging", ATTENTION, [](F& f) { f.officialTime = NOW - 8 * DAY; }, "", 8},
        {"update_failed", ATTENTION, [](F& f) { f.updateFailed = true, f.lastUpdated = 0; }, ""},
        {"never_updated", ATTENTION, [](F& f) { f.lastUpdated = 0; }, ""},
        {"updates_off", ATTENTION, [](F& f) { f.updatesScheduled = false; }, ""},
        {"realtime_off", ATTENTION, [](F& f) { f.realtimeWanted = f.realtimeGuards = false; }, ""},
        {"realtime_hanging", ATTENTION, [](F& f) { f.realtimeHanging = 2; }, "", 2},
        {"share_hanging", ATTENTION, [](F& f) { f.hangingRoot = "/h"; }, "/h"},
        {"share_missing", ATTENTION, [](F& f) { f.missingRoots = {"/b"}; }, "/b", 1},
        {"share_empty", ATTENTION, [](F& f) { f.emptyRoots = {"/e"}; }, "/e", 1},
        {"never_scanned", ATTENTION, [](F& f) { f.lastScanned = 0, f.lastEnd = F::ScanEnd::NEVER; }, ""},
        {"scan_incomplete", ATTENTION, [](F& f) { f.lastEnd = F::ScanEnd::STOPPED, f.lastEndFile = "/a/y"; }, "/a/y"},
        {"scan_incomplete", ATTENTION, [](F& f) { f.lastEnd = F::ScanEnd::INTERRUPTED; }, ""},
        {"nothing_scanned", ATTENTION, [](F& f) { f.scannedFiles = 0; }, ""},
        {"scan_overdue", ATTENTION, [](F& f) { f.lastScanned = NOW - 36 * DAY; }, "", 36},
        {"files_not_scanned", ATTENTION, [](F& f) { f.filesNotScanned = 4; }, "", 4},
        {"disk_full", ATTENTION, [](F& f) { f.stateFree = 0; }, ""},
        {"open_files", ATTENTION, [](F& f) { f.openFilesShort = true; }, ""},
        {"not_saved", ATTENTION, [](F& f) { f.unsaved = {"no room"}; }, "no room", 1},
        {"disk_nearly_full", ATTENTION, [](F& f) { f.stateFree = std::uint64_t{300} << 20U; }, "", 300},
        {"quarantine_full", ATTENTION,
         [](F& f) { f.quarantineRefuses = true, f.quarantineLimit = f.quarantineUsed = 950 << 20; }, "", 950},
        {"quarantine_nearly_full", ATTENTION,
         [](F& f) { f.quarantineLimit = 1000 << 20, f.quarantineUsed = 950 << 20; }, "", 950},
        {"quarantine_nearly_full", ATTENTION, [](F& f) { f.quarantineFiles = 9, f.quarantineMostFiles = 10; }, ""},
        {"quarantine_removal", ATTENTION, [](F& f) { f.quarantineAnnounced = 3, f.quarantineRemoval = NOW; },
         "2023-11-14", 3},
        {"configuration_unusable", ATTENTION,
         [](F& f) { f.configurationUsable = false, f.configurationError = "line 3"; }, "line 3"},
    };
    EXPECT_EQ(judgeProtection(wellGuarded()).level, PROTECTED);
    EXPECT_TRUE(judgeProtection(wellGuarded()).reasons.empty());
    const std::string handbook = readFile(std::string(SOURCE_DIR) + "/docs/verdict.md");
    std::set<std::string> covered;
    for (const Row& row : rows) {
        ProtectionFacts facts = wellGuarded();
        row.spoil(facts);
        const Protection verdict = judgeProtection(facts);
        ASSERT_EQ(verdict.reasons.size(), 1U) << row.code;
        const ProtectionReason& reason = verdict.reasons[0];
        EXPECT_EQ(std::tuple(reason.code, verdict.level, reason.severity, reason.detail, reason.count),
                  std::tuple(row.code, row.level, row.level, row.detail, row.count));
        const std::string line = "| `" + row.code + "` | " + protectionLevelName(row.level) + " |";
        EXPECT_NE(handbook.find(line), std::string::npos) << line;
        covered.insert(row.code);
    }
    for (const std::string& code : protectionCodes()) EXPECT_EQ(covered.count(code), 1U) << code << " has no row";
}

TEST(ProtectionTest, AFreshServerIsNotProtectedAndItsWorstReasonComesFirst) {
    ProtectionFacts facts;
    facts.now = NOW;
    facts.signatures = ProtectionFacts::Signatures::LOADED;  // the ones for trying out
    facts.roots = 1;
    const Protection verdict = judgeProtection(facts);
    EXPECT_EQ(verdict.level, ProtectionLevel::UNPROTECTED);
    ASSERT_GE(verdict.reasons.size(), 4U);
    EXPECT_EQ(verdict.reasons[0].code, "no_signatures");
    for (std::size_t i = 1; i < verdict.reasons.size(); ++i)
        EXPECT_GE(verdict.reasons[i - 1].severity, verdict.reasons[i].severity) << "the harmless before the harmful";
}

}  // namespace
}  // namespace keldra
