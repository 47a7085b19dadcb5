#include "service/verdict/protection.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>

namespace keldra {

namespace {

using Facts = ProtectionFacts;
using enum ProtectionLevel;

constexpr std::int64_t DAY = 86400;
constexpr std::int64_t SIGNATURES_AGING = 7 * DAY;
constexpr std::int64_t SIGNATURES_OUTDATED = 30 * DAY;
/// A little more than the longest schedule.
constexpr std::int64_t SCAN_OVERDUE = 35 * DAY;
constexpr std::uint64_t MIB = std::uint64_t{1} << 20U;
constexpr std::uint64_t ROOM_WANTED = 512 * MIB;
constexpr std::uint64_t ROOM_NEEDED = 64 * MIB;

/// What a row of the table found.
struct Finding {
    std::string detail{};
    std::uint64_t count = 0;
    const char* unit = "";
};
using Found = std::optional<Finding>;

constexpr const char* DAYS = "days";
constexpr const char* FILES = "files";
constexpr const char* FOLDERS = "folders";
constexpr const char* MEBIBYTES = "mib";
constexpr const char* MEBIBYTES_FREE = "mib_free";

Found found(bool is, std::string detail = {}, std::uint64_t count = 0, const char* unit = "") {
    return is ? Found({std::move(detail), count, unit}) : std::nullopt;
}

Found found(const std::vector<std::string>& paths) {
    return paths.empty() ? std::nullopt : Found({paths.front(), paths.size(), FOLDERS});
}

std::uint64_t daysSince(const Facts& facts, std::int64_t time) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, facts.now - time) / DAY);
}

bool signaturesUsed(const Facts& facts) {
    return facts.signatures == Facts::Signatures::LOADED && facts.realSignatures > 0;
}

Found noSignatures(const Facts& facts) {
    const bool none = facts.signatures == Facts::Signatures::NONE ||
                      (facts.signatures == Facts::Signatures::LOADED && facts.realSignatures == 0);
    return found(none, facts.signatureMessage);
}

Found signaturesUnusable(const Facts& facts) {
    return found(facts.signatures == Facts::Signatures::FAILED, facts.signatureMessage);
}

Found signaturesOlder(const Facts& facts, std::int64_t from, std::int64_t to) {
    const std::int64_t age = facts.now - facts.officialTime;
    const bool older = signaturesUsed(facts) && facts.officialTime != 0 && age > from && age <= to;
    return found(older, {}, daysSince(facts, facts.officialTime), DAYS);
}

Found scanCutShort(const Facts& facts) {
    const bool cut = facts.lastEnd == Facts::ScanEnd::STOPPED || facts.lastEnd == Facts::ScanEnd::INTERRUPTED ||
                     facts.lastEnd == Facts::ScanEnd::FAILED;
    return found(cut, facts.lastEndFile.empty() ? facts.lastEndMessage : facts.lastEndFile);
}

Found diskFull(const Facts& facts, bool wholly) {
    const std::uint64_t wanted = std::min(ROOM_WANTED, facts.stateSize / 20);
    const bool isWholly = facts.stateFree < ROOM_NEEDED && facts.stateFree < facts.stateSize / 4;
    const bool nearly = facts.stateFree < wanted;
    return found(wholly ? isWholly : nearly && !isWholly, {}, facts.stateFree / MIB, MEBIBYTES_FREE);
}

bool nineTenths(std::uint64_t used, std::uint64_t limit) { return limit != 0 && used >= limit / 10 * 9; }

/// A local day, as "2026-03-31".
std::string dayText(std::int64_t time) {
    const auto seconds = static_cast<std::time_t>(time);
    std::tm local{};
    std::array<char, 32> text{};
    if (!::localtime_r(&seconds, &local)) return {};
    return {text.data(), std::strftime(text.data(), text.size(), "%F", &local)};
}

bool nothingSwitchedOn(const Facts& facts) { return !facts.realtimeWanted && !facts.scanScheduled; }

struct Row {
    const char* code;
    ProtectionLevel severity;
    const char* text;
    Found (*find)(const Facts&);
};

/// In order of harm.
constexpr std::array ROWS{
    Row{"no_signatures", UNPROTECTED, "There are no virus signatures, so nothing can be found.", noSignatures},
    Row{"signatures_unusable", UNPROTECTED, "The virus signatures cannot be loaded, so nothing can be found.",
        signaturesUnusable},
    Row{"scanner_down", UNPROTECTED, "The scanner does not run, so nothing can be found.",
        [](const Facts& f) { return found(signaturesUsed(f) && !f.scannerWorks); }},
    Row{"no_shares", UNPROTECTED, "No folder is set that could be guarded.",
        [](const Facts& f) { return found(f.roots == 0); }},
    Row{"shares_gone", UNPROTECTED, "None of the folders to guard is there.",
        [](const Facts& f) { return f.missingRoots.size() >= f.roots ? found(f.missingRoots) : Found(); }},
    Row{"nothing_on", UNPROTECTED, "Neither the real-time scan nor a scheduled scan is switched on.",
        [](const Facts& f) { return found(nothingSwitchedOn(f)); }},
    Row{"realtime_not_guarding", UNPROTECTED, "The real-time scan is switched on and does not guard.",
        [](const Facts& f) { return found(f.realtimeWanted && !f.realtimeGuards, f.realtimeMessage); }},
    Row{"signatures_outdated", UNPROTECTED, "The virus signatures are more than 30 days old.",
        [](const Facts& f) { return signaturesOlder(f, SIGNATURES_OUTDATED, INT64_MAX); }},
    Row{"untreated", ATTENTION, "Infected files still lie where they were found.",
        [](const Facts& f) { return found(f.untreated > 0, f.untreatedExample, f.untreated, FILES); }},
    Row{"signatures_loading", ATTENTION, "The virus signatures are still being loaded.",
        [](const Facts& f) { return found(f.signatures == Facts::Signatures::LOADING); }},
    Row{"signatures_not_renewed", ATTENTION, "New virus signatures cannot be loaded; older ones are in use.",
        [](const Facts& f) {
            return found(f.signatureLoadFailed && f.signatures == Facts::Signatures::LOADED, f.signatureMessage);
        }},
    Row{"signature_folder_missing", ATTENTION, "A folder with virus signatures is not there.",
        [](const Facts& f) { return found(f.missingSignatureFolders); }},
    Row{"signatures_aging", ATTENTION, "The virus signatures are more than 7 days old.",
        [](const Facts& f) { return signaturesOlder(f, SIGNATURES_AGING, SIGNATURES_OUTDATED); }},
    Row{"update_failed", ATTENTION, "The last update of the virus signatures failed.",
        [](const Facts& f) { return found(f.updateFailed, f.updateMessage); }},
    Row{"never_updated", ATTENTION, "The virus signatures were never updated.",
        [](const Facts& f) { return found(!f.updateFailed && f.lastUpdated == 0); }},
    Row{"updates_off", ATTENTION, "The virus signatures are not updated by a schedule.",
        [](const Facts& f) { return found(!f.updatesScheduled); }},
    Row{"realtime_off", ATTENTION, "The real-time scan is switched off.",
        [](const Facts& f) { return found(!f.realtimeWanted && !nothingSwitchedOn(f)); }},
    Row{"realtime_hanging", ATTENTION, "Files do not answer; they were left unscanned.",
        [](const Facts& f) { return found(f.realtimeHanging > 0, f.realtimeMessage, f.realtimeHanging, FILES); }},
    Row{"share_hanging", ATTENTION, "A folder to guard does not answer.",
        [](const Facts& f) { return found(!f.hangingRoot.empty(), f.hangingRoot); }},
    Row{"share_missing", ATTENTION, "A folder to guard is not there.",
        [](const Facts& f) { return f.missingRoots.size() < f.roots ? found(f.missingRoots) : Found(); }},
    Row{"share_empty", ATTENTION, "A folder to guard is empty. Is its file system mounted?",
        [](const Facts& f) { return found(f.emptyRoots); }},
    Row{"never_scanned", ATTENTION, "No scan of the folders has run to its end yet.",
        [](const Facts& f) { return found(f.lastScanned == 0); }},
    Row{"scan_incomplete", ATTENTION, "The last scan did not run to its end.", scanCutShort},
    Row{"nothing_scanned", ATTENTION, "The last scan found no file to scan.",
        [](const Facts& f) { return found(f.lastScanned != 0 && f.scannedFiles == 0); }},
    Row{"scan_overdue", ATTENTION, "The last scan of the folders is more than 35 days ago.",
        [](const Facts& f) {
            return found(f.lastScanned != 0 && f.now - f.lastScanned > SCAN_OVERDUE, {}, daysSince(f, f.lastScanned),
                         DAYS);
        }},
    Row{"files_not_scanned", ATTENTION, "Files could not be scanned, or not wholly, in the last scan.",
        [](const Facts& f) { return found(f.filesNotScanned > 0, {}, f.filesNotScanned, FILES); }},
    Row{"disk_full", ATTENTION, "The disk of the service is full: nothing more can be stored or put into quarantine.",
        [](const Facts& f) { return diskFull(f, true); }},
    Row{"open_files", ATTENTION, "Too many files are open: not everything can be scanned or stored.",
        [](const Facts& f) { return found(f.openFilesShort); }},
    Row{"not_saved", ATTENTION, "The service cannot write what it has to remember.",
        [](const Facts& f) { return found(f.unsaved); }},
    Row{"disk_nearly_full", ATTENTION, "The disk of the service is nearly full.",
        [](const Facts& f) { return diskFull(f, false); }},
    Row{"quarantine_full", ATTENTION, "The quarantine is full: finds cannot be put away.",
        [](const Facts& f) { return found(f.quarantineRefuses, {}, f.quarantineUsed / MIB, MEBIBYTES); }},
    Row{"quarantine_nearly_full", ATTENTION, "The quarantine is nearly full.",
        [](const Facts& f) {
            const bool nearly =
                nineTenths(f.quarantineUsed, f.quarantineLimit) || nineTenths(f.quarantineFiles, f.quarantineMostFiles);
            return found(nearly && !f.quarantineRefuses, {}, f.quarantineUsed / MIB, MEBIBYTES);
        }},
    Row{"quarantine_removal", ATTENTION, "Files in quarantine are going to be removed for good.",
        [](const Facts& f) {
            return found(f.quarantineAnnounced > 0, dayText(f.quarantineRemoval), f.quarantineAnnounced, FILES);
        }},
    Row{"configuration_unusable", ATTENTION, "The configuration cannot be read; the last good settings are in use.",
        [](const Facts& f) { return found(!f.configurationUsable, f.configurationError); }},
};

}  // namespace

const char* protectionLevelName(ProtectionLevel level) {
    constexpr std::array<const char*, 3> NAMES{"protected", "attention", "unprotected"};
    return NAMES.at(static_cast<std::size_t>(level));
}

Protection judgeProtection(const ProtectionFacts& facts) {
    Protection verdict;
    for (const Row& row : ROWS) {
        Found finding = row.find(facts);
        if (!finding) continue;
        verdict.level = std::max(verdict.level, row.severity);
        verdict.reasons.push_back(
            {row.code, row.severity, row.text, std::move(finding->detail), finding->count, finding->unit});
    }
    return verdict;
}

std::vector<std::string> protectionCodes() {
    std::vector<std::string> codes;
    codes.reserve(ROWS.size());
    for (const Row& row : ROWS) codes.emplace_back(row.code);
    return codes;
}

std::vector<std::string> protectionTexts() {
    std::vector<std::string> texts;
    texts.reserve(ROWS.size());
    for (const Row& row : ROWS) texts.emplace_back(row.text);
    return texts;
}

}  // namespace keldra
