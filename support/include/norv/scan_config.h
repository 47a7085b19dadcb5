#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

class NORVConfig;

/// Settings common to every scan. Texts that hold several folders or patterns are path lists (norv/path_list.h).
struct NORVScanConfig {
    NORVScanConfig() = default;
    NORVScanConfig(const NORVScanConfig&) = default;
    NORVScanConfig& operator=(const NORVScanConfig&) = default;
    virtual ~NORVScanConfig() = default;

    std::string includeExtList;          ///< extensions to scan, as typed; empty: all files or the default list
    bool includeHVExtList = false;       ///< also scan what the default extension list names
    bool zelscan = false;                ///< let the service choose by file type instead of by a list
    std::string customActions;           ///< actions per virus type, text form of CustomActionList, stored digits
    std::string universeAction;          ///< one action for all types, "first-second" in stored digits
    bool scanCompressed = false;         ///< look inside archives
    uint32_t compressionLayer = 0;       ///< how many nested archive layers to open
    uint32_t compressFileSizeLimit = 0;  ///< largest file unpacked from an archive, in MiB; 0: the engine's own limit
    bool backupBeforeClean = false;      ///< keep a copy before a file is cleaned

    std::string scanPaths;        ///< folders to scan
    std::string excludePaths;     ///< folders left out, with all below them
    std::string excludePatterns;  ///< shell patterns of file names left out

protected:
    /// The common settings of one category of the configuration.
    NORVScanConfig(const NORVConfig& config, const char* category);
};

/// Settings common to scans that somebody asked for.
struct NORVOnDemandScanConfig : NORVScanConfig {
    NORVOnDemandScanConfig() = default;

    uint32_t scanWorkers = 0;  ///< files scanned at a time; 0: the service decides

protected:
    NORVOnDemandScanConfig(const NORVConfig& config, const char* category);
};

/// The manual scan, category "ManualScan".
struct NORVManualScanConfig : NORVOnDemandScanConfig {
    NORVManualScanConfig() = default;
    explicit NORVManualScanConfig(const NORVConfig& config);
};

/// The real-time scan, category "RealtimeScan".
struct NORVRealtimeScanConfig : NORVScanConfig {
    static constexpr uint32_t INCOMING = 1U << 0U;
    static constexpr uint32_t OUTGOING = 1U << 1U;

    NORVRealtimeScanConfig() = default;
    explicit NORVRealtimeScanConfig(const NORVConfig& config);

    uint32_t scanDirection = 0;           ///< INCOMING and OUTGOING; 0: off
    bool serviceRunning = false;          ///< whether the listener runs; filled by the service
    bool kernelHookModuleLoaded = false;  ///< whether the kernel lets us listen; filled by the service
    uint32_t scanTimeLimit = 10;          ///< seconds a file's reader may wait for its scan
    bool denyOnTimeout = false;           ///< what happens then: refuse the access, else allow it
};

/// The scheduled scan, category "ScheduledScan".
struct NORVScheduledScanConfig : NORVScanConfig {
    enum Frequency : uint32_t { OFF = 0, DAILY = 2, WEEKLY = 3, MONTHLY = 4 };

    NORVScheduledScanConfig() = default;
    explicit NORVScheduledScanConfig(const NORVConfig& config);

    uint32_t frequency = OFF;
    std::string time;       ///< "hh:mm:ss", local time
    int32_t weekDay = 0;    ///< Sunday 0 to Saturday 6
    uint32_t monthDay = 1;  ///< 1 to 31; a month without that day: its last one
};

/// A record's text form is one JSON object, the record's type name over a flat object of its fields. Reading keeps the
/// value of a field that the text lacks and ignores unknown names; anything malformed sets failbit, or makes
/// `parseRecord` false, and leaves the whole record as it was.
std::string recordText(const NORVManualScanConfig& record);
std::ostream& operator<<(std::ostream& out, const NORVManualScanConfig& record);
std::istream& operator>>(std::istream& in, NORVManualScanConfig& record);
bool parseRecord(std::string_view text, NORVManualScanConfig& record);
std::string recordText(const NORVRealtimeScanConfig& record);
std::ostream& operator<<(std::ostream& out, const NORVRealtimeScanConfig& record);
std::istream& operator>>(std::istream& in, NORVRealtimeScanConfig& record);
bool parseRecord(std::string_view text, NORVRealtimeScanConfig& record);
std::string recordText(const NORVScheduledScanConfig& record);
std::ostream& operator<<(std::ostream& out, const NORVScheduledScanConfig& record);
std::istream& operator>>(std::istream& in, NORVScheduledScanConfig& record);
bool parseRecord(std::string_view text, NORVScheduledScanConfig& record);

/// Writes every field of a record into its category of the document, for the service.
void storeRecord(NORVConfig& config, const NORVManualScanConfig& record);
void storeRecord(NORVConfig& config, const NORVRealtimeScanConfig& record);
void storeRecord(NORVConfig& config, const NORVScheduledScanConfig& record);
