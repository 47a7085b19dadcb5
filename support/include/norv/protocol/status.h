#pragma once

#include "norv/protocol/call.h"
#include "norv/protocol/scans.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace protocol {

/// What `ServiceStatus::database` may be.
inline constexpr const char* DATABASE_LOADED = "loaded";
inline constexpr const char* DATABASE_NONE = "none";
inline constexpr const char* DATABASE_FAILED = "failed";

/// What `ServiceStatus::verdict` may be; also the severities of reasons.
inline constexpr const char* VERDICT_PROTECTED = "protected";
inline constexpr const char* VERDICT_ATTENTION = "attention";
inline constexpr const char* VERDICT_UNPROTECTED = "unprotected";

/// One thing that speaks against being protected. docs/verdict.md lists them.
struct VerdictReason {
    std::string reason;    ///< a code
    std::string severity;  ///< VERDICT_ATTENTION or VERDICT_UNPROTECTED
    std::string text;      ///< an English sentence
    std::string detail;    ///< a path or the like; may be empty
    uint64_t count = 0;
    std::string unit;  ///< of the count: "days", "files", "folders", "mib" or "mib_free"; empty without one

    static void visit(auto& record, auto&& field) {
        field("reason", record.reason);
        field("severity", record.severity);
        field("text", record.text);
        field("detail", record.detail);
        field("count", record.count);
        field("unit", record.unit);
    }
};

/// How the service is doing. Times are seconds since the epoch.
struct ServiceStatus {
    std::string version;
    int64_t uptime = 0;         ///< seconds
    std::string configuration;  ///< what is wrong with the document; empty: nothing
    std::string database;
    std::string databaseVersion;
    int64_t databaseTime = 0;
    std::string engineVersion;
    uint64_t signatures = 0;
    bool reloading = false;
    std::string engineMessage;
    bool realtimeRunning = false;
    bool realtimeAllowed = false;  ///< the kernel lets the service listen
    std::string realtimeMessage;
    uint64_t realtimeHanging = 0;              ///< scans that do not come back
    std::optional<std::string> runningManual;  ///< the id of a scan that runs
    std::optional<std::string> runningScheduled;
    std::optional<std::string> runningPath;
    int64_t nextScan = 0;    ///< 0: nothing is planned
    int64_t nextUpdate = 0;  ///< 0: nothing is planned
    int64_t lastScan = 0;    ///< of the schedule
    int64_t lastUpdate = 0;  ///< of the schedule
    bool updateRunning = false;
    uint64_t quarantined = 0;
    uint64_t quarantineBytes = 0;
    uint64_t quarantineLimit = 0;            ///< bytes; 0: none
    std::optional<uint64_t> quarantineRoom;  ///< bytes that may still be put away; none: nothing limits it
    int64_t quarantineOldest = 0;            ///< when the oldest file was put away; 0: there is none
    uint64_t quarantineAnnounced = 0;        ///< files that are to be removed
    uint64_t quarantineAnnouncedBytes = 0;
    int64_t quarantineRemoval = 0;  ///< when the first of them goes; 0: none is to go
    uint64_t sessions = 0;
    std::string stateNotWritten;  ///< what could not be stored yet and why; empty: all is
    uint64_t untreated = 0;       ///< infected files that still lie where they were found
    std::string untreatedScan;    ///< the newest scan that reported one
    std::string verdict;
    std::vector<VerdictReason> reasons;  ///< the most harmful one first
    std::vector<ScanSummary> lastScans;  ///< the newest one of each kind

    static void visit(auto& record, auto&& field) {
        field("Version", record.version);
        field("Uptime", record.uptime);
        field("Configuration", record.configuration);
        field("Database", record.database);
        field("DatabaseVersion", record.databaseVersion);
        field("DatabaseTime", record.databaseTime);
        field("EngineVersion", record.engineVersion);
        field("Signatures", record.signatures);
        field("Reloading", record.reloading);
        field("EngineMessage", record.engineMessage);
        field("RealtimeRunning", record.realtimeRunning);
        field("RealtimeAllowed", record.realtimeAllowed);
        field("RealtimeMessage", record.realtimeMessage);
        field("RealtimeHanging", record.realtimeHanging);
        field("Running_manual", record.runningManual);
        field("Running_scheduled", record.runningScheduled);
        field("Running_path", record.runningPath);
        field("NextScan", record.nextScan);
        field("NextUpdate", record.nextUpdate);
        field("LastScan", record.lastScan);
        field("LastUpdate", record.lastUpdate);
        field("UpdateRunning", record.updateRunning);
        field("Quarantined", record.quarantined);
        field("QuarantineBytes", record.quarantineBytes);
        field("QuarantineLimit", record.quarantineLimit);
        field("QuarantineRoom", record.quarantineRoom);
        field("QuarantineOldest", record.quarantineOldest);
        field("QuarantineAnnounced", record.quarantineAnnounced);
        field("QuarantineAnnouncedBytes", record.quarantineAnnouncedBytes);
        field("QuarantineRemoval", record.quarantineRemoval);
        field("Sessions", record.sessions);
        field("StateNotWritten", record.stateNotWritten);
        field("Untreated", record.untreated);
        field("UntreatedScan", record.untreatedScan);
        field("Verdict", record.verdict);
        field("Reasons", record.reasons);
        field("LastScans", record.lastScans);
    }
};

struct GetServiceStatus {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::SERVICE_STATUS;
    using Reply = ServiceStatus;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

}  // namespace protocol
