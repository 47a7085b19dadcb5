#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace keldra {

/// How well this server is guarded.
enum class ProtectionLevel : std::uint8_t { PROTECTED, ATTENTION, UNPROTECTED };

/// "protected", "attention" or "unprotected".
const char* protectionLevelName(ProtectionLevel level);

/// What is known when a verdict is asked for. Whatever is not known yet counts as not there. In the order in which one
/// reads about them, and there is but one at a time. NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct ProtectionFacts {
    enum class Signatures : std::uint8_t { NONE, LOADED, LOADING, FAILED };
    enum class ScanEnd : std::uint8_t { NEVER, COMPLETED, STOPPED, INTERRUPTED, FAILED };

    std::int64_t now = 0;  ///< this and all other times: seconds since the epoch; 0: never

    // The signatures and the engine.
    Signatures signatures = Signatures::NONE;
    std::uint64_t realSignatures = 0;  ///< without those that ship for trying out
    std::int64_t officialTime = 0;     ///< when the oldest part that counts was built
    bool signatureLoadFailed = false;  ///< the last load, whether older ones are in use or not
    std::string signatureMessage{};    ///< why
    std::vector<std::string> missingSignatureFolders{};
    bool scannerWorks = true;  ///< files can be scanned at this moment

    // Updates.
    bool updatesScheduled = false;
    bool updateFailed = false;     ///< the last one
    std::string updateMessage{};   ///< why
    std::int64_t lastUpdated = 0;  ///< when the last one that succeeded ended

    // Scans of the folders that the settings name.
    bool scanScheduled = false;
    std::int64_t lastScanned = 0;        ///< when the last one that ran to its end ended
    ScanEnd lastEnd = ScanEnd::NEVER;    ///< how the newest one ended
    std::string lastEndMessage{};        ///< why
    std::string lastEndFile{};           ///< the file it was at, when it did not run to its end
    std::uint64_t scannedFiles = 0;      ///< of the last one that ran to its end
    std::uint64_t filesNotScanned = 0;   ///< skipped or not fully scanned, in the same one
    std::uint64_t untreated = 0;         ///< infected files that lie where they were found
    std::string untreatedExample{};      ///< one of them
    std::vector<std::string> unsaved{};  ///< what could not be written, a sentence each

    // The real-time scan.
    bool realtimeWanted = false;
    bool realtimeGuards = false;
    std::uint64_t realtimeHanging = 0;  ///< files whose file system does not answer
    std::string realtimeMessage{};

    // Where everything lies.
    bool configurationUsable = true;
    std::string configurationError{};
    std::size_t roots = 0;  ///< folders that may be scanned
    std::vector<std::string> missingRoots{};
    std::vector<std::string> emptyRoots{};
    std::string hangingRoot{};             ///< one that does not answer
    std::uint64_t stateFree = UINT64_MAX;  ///< bytes
    std::uint64_t stateSize = UINT64_MAX;  ///< bytes
    bool openFilesShort = false;           ///< hardly a file more can be opened
    std::uint64_t quarantineUsed = 0;      ///< bytes
    std::uint64_t quarantineLimit = 0;     ///< bytes; 0: none
    std::uint64_t quarantineFiles = 0;
    std::uint64_t quarantineMostFiles = 0;  ///< 0: no limit
    bool quarantineRefuses = false;         ///< there was no room for a find, or there would be none
    std::uint64_t quarantineAnnounced = 0;  ///< files that are to be removed from it
    std::int64_t quarantineRemoval = 0;     ///< when the first of them goes
};

/// One thing that speaks against being protected.
struct ProtectionReason {
    std::string code;  ///< for programs; never changes its meaning
    ProtectionLevel severity = ProtectionLevel::ATTENTION;
    std::string text;    ///< an English sentence, one of `protectionTexts`
    std::string detail;  ///< a path, a message or the like; may be empty
    std::uint64_t count = 0;
    std::string unit;  ///< of the count: "days", "files", "folders", "mib" or "mib_free"; empty without one
};

/// The one answer to whether this server is protected, for every place that shows it.
struct Protection {
    ProtectionLevel level = ProtectionLevel::PROTECTED;
    std::vector<ProtectionReason> reasons;  ///< the most harmful one first
};

/// Judges by the facts alone.
Protection judgeProtection(const ProtectionFacts& facts);

/// All codes in order of harm, and all texts that a reason may have, for the message catalogue.
std::vector<std::string> protectionCodes();
std::vector<std::string> protectionTexts();

}  // namespace keldra
