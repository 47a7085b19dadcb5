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

/// How one file is to be scanned.
struct ScanOptions {
    bool archives = true;          ///< look inside archives
    uint32_t layers = 0;           ///< nested archives that are opened; 0, or too many: as many as the engine can
    uint64_t memberSizeLimit = 0;  ///< bytes of the largest archive member that is looked at; 0: the engine's own limit
};

/// The options that a settings record asks for.
ScanOptions scanOptionsOf(const NORVScanConfig& settings);

struct ScanResult {
    Verdict verdict = Verdict::FAILED;
    std::string signature;        ///< what was found, without a suffix of the engine; only when INFECTED
    std::string detail;           ///< English: what kept the file from being scanned wholly, or what failed
    std::string engineName = {};  ///< the signature with the engine's suffix, as other scanners of its kind tell it
};

/// Why a scan that was stopped looked at less than all.
inline constexpr const char* STOPPED = "the scan was stopped";

/// A verdict with its reason.
ScanResult notFullyScanned(std::string detail);

}  // namespace keldra
