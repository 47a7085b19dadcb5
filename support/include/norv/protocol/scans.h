#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace protocol {

/// How far a scan is. The pages know the numbers as well (htdocs/js/protocol.js); any number is a legal value.
enum class ScanState : int32_t { NOT_RUNNING = -1, STOPPED = 1, FAILED = 2, COMPLETED = 3, RUNNING = 4 };

/// What started a scan. Anything may stand where a kind does: later services may know more of them.
inline constexpr const char* KIND_MANUAL = "manual";
inline constexpr const char* KIND_SCHEDULED = "scheduled";
inline constexpr const char* KIND_PATH = "path";

/// The largest number of files that a scan works on at a time.
inline constexpr uint32_t MAX_WORKERS = 32;

/// A scan's name: letters and digits that end up in names of files and addresses.
inline bool isRequestId(std::string_view id) {
    return !id.empty() && id.find_first_not_of("0123456789_") == std::string_view::npos;
}

/// What holds a scan up: somebody asked for it, or it is outside of its time of day.
inline constexpr const char* PAUSED_ASKED = "asked";
inline constexpr const char* PAUSED_WINDOW = "window";

struct ScanProgress {
    ScanState state{};  ///< 0, which is none, when the reply does not say
    int64_t total = 0;  ///< files to scan, as far as they are counted
    int64_t scanned = 0;
    int64_t found = 0;             ///< infected ones
    uint64_t notFullyScanned = 0;  ///< those that met a limit or are encrypted
    uint64_t skipped = 0;          ///< those that could not be read or vanished
    uint64_t bytes = 0;            ///< of the files that were scanned wholly
    int64_t started = 0;           ///< seconds since the epoch
    int64_t ended = 0;             ///< seconds since the epoch; 0 while running
    std::string kind;
    std::string currentFile;
    std::string message;       ///< explains the state, English; may be empty
    uint64_t bytesDone = 0;    ///< of all files that are dealt with
    uint64_t bytesTotal = 0;   ///< of the files to scan, as far as they are counted
    bool counting = false;     ///< the totals still grow
    int64_t secondsLeft = -1;  ///< a guess; -1: none
    std::string paused;        ///< empty, PAUSED_ASKED or PAUSED_WINDOW
    std::string outcome;       ///< "running", "completed", "stopped", "interrupted" or "failed"
    std::string lastFile;      ///< the file it was at when it did not run to its end
    bool saved = true;         ///< the result is on disk

    static void visit(auto& record, auto&& field) {
        field("Status", record.state);
        field("Total", record.total);
        field("Scanned", record.scanned);
        field("VirusFound", record.found);
        field("NotFullyScanned", record.notFullyScanned);
        field("Skipped", record.skipped);
        field("Bytes", record.bytes);
        field("Started", record.started);
        field("Ended", record.ended);
        field("Kind", record.kind);
        field("CurrentFile", record.currentFile);
        field("Message", record.message);
        field("BytesDone", record.bytesDone);
        field("BytesTotal", record.bytesTotal);
        field("Counting", record.counting);
        field("SecondsLeft", record.secondsLeft);
        field("Paused", record.paused);
        field("Outcome", record.outcome);
        field("LastFile", record.lastFile);
        field("Saved", record.saved);
    }
};

struct GetScanProgress {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::MANUAL_SCAN_STATUS;
    using Reply = ScanProgress;
    std::string requestId;

    static void visit(auto& record, auto&& field) { field("RequestID", record.requestId); }
};

struct VirusTypes {
    std::string types;  ///< separated by ";"

    static void visit(auto& record, auto&& field) { field("VirusTypes", record.types); }
};

struct GetVirusTypes {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::VIRUS_TYPES;
    using Reply = VirusTypes;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

/// A scan that was started.
struct ScanStarted {
    std::string requestId;

    static void visit(auto& record, auto&& field) { field("RequestID", record.requestId); }
};

struct StartManualScan {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::MANUAL_SCAN;
    using Reply = ScanStarted;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

struct StopManualScan {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::MANUAL_SCAN;
    using Reply = Nothing;
    std::string requestId;

    static void visit(auto& record, auto&& field) { field("RequestID", record.requestId); }
};

struct StartPathScan {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::PATH_SCAN;
    using Reply = ScanStarted;
    std::string paths;     ///< a path list of absolute paths
    bool act = false;      ///< act on finds as the manual scan's settings say; else they are only reported
    uint32_t workers = 0;  ///< files scanned at a time; 0: the service decides

    static void visit(auto& record, auto&& field) {
        field("Paths", record.paths);
        field("Act", record.act);
        field("Workers", record.workers);
    }
};

struct StopPathScan {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::PATH_SCAN;
    using Reply = Nothing;
    std::string requestId;

    static void visit(auto& record, auto&& field) { field("RequestID", record.requestId); }
};

/// Holds a running scan up before its next file.
struct PauseScan {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::CommandID{122};
    using Reply = Nothing;
    std::string requestId;

    static void visit(auto& record, auto&& field) { field("RequestID", record.requestId); }
};

/// Lets it go on.
struct ResumeScan {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = IPCMessage::CommandID{122};
    using Reply = Nothing;
    std::string requestId;

    static void visit(auto& record, auto&& field) { field("RequestID", record.requestId); }
};

/// What a scan reports about one file.
struct ScanFind {
    std::string path;
    bool infected = false;  ///< else it was not fully scanned, or not at all
    std::string signature;
    std::string type;
    std::string detail;    ///< what was done, or what kept it from being scanned; English
    bool left = false;     ///< infected, and left where it was found
    bool skipped = false;  ///< not looked at at all

    static void visit(auto& record, auto&& field) {
        field("path", record.path);
        field("infected", record.infected);
        field("signature", record.signature);
        field("type", record.type);
        field("detail", record.detail);
        field("left", record.left);
        field("skipped", record.skipped);
    }
};

struct ScanFinds {
    std::vector<ScanFind> finds;
    bool more = false;  ///< whether there may be more behind them

    static void visit(auto& record, auto&& field) {
        field("Finds", record.finds);
        field("More", record.more);
    }
};

struct GetScanFinds {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::SCAN_FINDS;
    using Reply = ScanFinds;
    std::string requestId;
    uint64_t from = 0;  ///< number of the first one wanted

    static void visit(auto& record, auto&& field) {
        field("RequestID", record.requestId);
        field("From", record.from);
    }
};

/// One of the scans that are known.
struct ScanSummary {
    std::string id;
    std::string kind;
    ScanState state{};
    uint64_t total = 0;
    uint64_t scanned = 0;
    uint64_t found = 0;
    uint64_t notFullyScanned = 0;
    uint64_t skipped = 0;
    uint64_t bytes = 0;
    int64_t started = 0;
    int64_t ended = 0;
    std::string message;
    std::string outcome;   ///< as that of ScanProgress
    std::string lastFile;  ///< the file it was at when it did not run to its end
    bool saved = true;

    static void visit(auto& record, auto&& field) {
        field("id", record.id);
        field("kind", record.kind);
        field("state", record.state);
        field("total", record.total);
        field("scanned", record.scanned);
        field("found", record.found);
        field("notFullyScanned", record.notFullyScanned);
        field("skipped", record.skipped);
        field("bytes", record.bytes);
        field("started", record.started);
        field("ended", record.ended);
        field("message", record.message);
        field("outcome", record.outcome);
        field("lastFile", record.lastFile);
        field("saved", record.saved);
    }
};

/// Newest first.
struct ScanHistory {
    std::vector<ScanSummary> scans;

    static void visit(auto& record, auto&& field) { field("Scans", record.scans); }
};

struct GetScanHistory {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::SCAN_HISTORY;
    using Reply = ScanHistory;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

}  // namespace protocol
