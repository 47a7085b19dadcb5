#pragma once

#include <cstdint>
#include <string>

struct NORVScanConfig;

namespace keldra {

/// What a scan says of one file. Whatever is not CLEAN must not be shown as clean.
enum class Verdict {
    CLEAN,
    INFECTED,
    NOT_FULLY_SCANNED,  ///< a limit was met, something is encrypted, or the scan was stopped in the middle
    FAILED              ///< the engine could not look at it, or there is no database
};

/// Who asks for a scan. Each lane has its share of the scanners; the real-time scan has scanners of its own, and lower
/// limits.
enum class ScanLane { REALTIME, MANUAL, SCHEDULED, PATH, CLIENT };

/// How much one file may cost; 0: what the lane is given.
struct ScanLimits {
    uint64_t unpacked = 0;  ///< bytes unpacked from it, in all
    uint32_t members = 0;   ///< files in it, in all
    uint32_t seconds = 0;

    bool operator==(const ScanLimits&) const = default;
};

/// How one file is to be scanned.
struct ScanOptions {
    bool archives = true;          ///< look inside archives
    uint32_t layers = 0;           ///< nested archives that are opened; 0, or too many: as many as the engine can
    uint64_t memberSizeLimit = 0;  ///< bytes of the largest archive member that is looked at; 0: the engine's own limit
    ScanLane lane = ScanLane::PATH;
    ScanLimits limits = {};
    std::string content = {};  ///< SHA-256 of the whole file, where the caller knows it and the file cannot change
};

/// The options that a settings record asks for, in a lane.
ScanOptions scanOptionsOf(const NORVScanConfig& settings, ScanLane lane = ScanLane::PATH);

struct ScanResult {
    Verdict verdict = Verdict::FAILED;
    std::string signature;        ///< what was found, without a suffix of the engine; only when INFECTED
    std::string detail;           ///< English: what kept the file from being scanned wholly, or what failed
    std::string engineName = {};  ///< the signature with the engine's suffix, as other scanners of its kind tell it
    bool lasting = false;         ///< FAILED, and would be again with these signatures
};

/// Why a scan that was stopped looked at less than all.
inline constexpr const char* STOPPED = "the scan was stopped";

/// A verdict with its reason.
ScanResult notFullyScanned(std::string detail);

}  // namespace keldra
