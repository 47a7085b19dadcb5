#pragma once

#include "norv/protocol/scans.h"
#include "norv/scan_config.h"
#include "service/scanning/scan_pause.h"

#include <cstdint>
#include <string>
#include <vector>

namespace keldra {

enum class ScanKind { MANUAL, SCHEDULED, PATH };

/// "manual", "scheduled" or "path".
std::string scanKindName(ScanKind kind);

using protocol::ScanFind;
using protocol::ScanState;

/// A scan to start.
struct ScanRequest {
    ScanKind kind = ScanKind::MANUAL;
    NORVScanConfig settings;              ///< what to select, leave out, open, and do with finds
    std::vector<std::string> roots;       ///< folders or files; empty: the settings' own folders
    std::vector<std::string> shareRoots;  ///< of the walk's plan
    uint32_t workers = 0;                 ///< files scanned at a time; 0: as many as suit the machine
    bool act = true;                      ///< whether finds lead to actions or are reported only
    bool lowPriority = false;             ///< whether other programs go first
    ScanWindow window{};                  ///< the time of day within which it works; else it is paused
};

struct ScanStatus {
    std::string id;
    ScanKind kind = ScanKind::MANUAL;
    ScanState state = ScanState::NOT_RUNNING;
    uint64_t total = 0;            ///< files to scan, as far as they are counted
    uint64_t scanned = 0;          ///< files looked at, whatever the verdict
    uint64_t found = 0;            ///< infected ones
    uint64_t notFullyScanned = 0;  ///< those that met a limit or are encrypted
    uint64_t skipped = 0;          ///< those that could not be read or vanished
    uint64_t bytes = 0;            ///< bytes of the files that were scanned wholly, as far as the disk holds them
    uint64_t bytesDone = 0;        ///< bytes of all files that are dealt with, whatever came of it
    uint64_t totalBytes = 0;       ///< bytes of the files to scan, as far as they are counted
    bool counting = false;         ///< whether the totals still grow
    int64_t secondsLeft = -1;      ///< a guess; -1: none
    ScanPause::Why paused = ScanPause::Why::RUNS;
    std::string lastFile;     ///< one of the files it was at when it did not run to its end
    bool saved = true;        ///< whether all of this and its reports are on disk
    std::string currentFile;  ///< one of the files under scan; empty when ended
    int64_t started = 0;      ///< seconds since the epoch
    int64_t ended = 0;        ///< seconds since the epoch; 0 while running
    std::string message;      ///< English, one of `scanMessages`; may be empty
};

/// "completed", "stopped" (by somebody), "interrupted" (by the end of the service), "failed", "running" or "none".
std::string scanOutcome(const ScanStatus& status);

/// Texts of `ScanStatus::message`; they have entries in the message catalogues.
inline constexpr const char* SCAN_COMPLETE = "The scan is complete.";
inline constexpr const char* SCAN_STOPPED = "The scan was stopped.";
inline constexpr const char* SCAN_SHUT_DOWN = "The scan was stopped because the service was shut down.";
inline constexpr const char* SCAN_INTERRUPTED = "The scan was interrupted because the service ended unexpectedly.";
inline constexpr const char* SCAN_BROKEN = "The scan was ended by an error, see the log of the service.";
inline constexpr const char* SCAN_NO_SIGNATURES = "There are no virus signatures. Update the signatures first.";
inline constexpr const char* SCAN_NO_FOLDER = "No folder to scan is set.";
inline constexpr const char* SCAN_NOTHING_READABLE = "None of the folders to scan can be read.";

/// All texts that `ScanStatus::message` may hold, for the message catalogue.
const std::vector<std::string>& scanMessages();

}  // namespace keldra
