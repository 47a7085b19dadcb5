#include "service/engine/scan_result.h"

#include "norv/scan_config.h"

#include <utility>

namespace keldra {

namespace {

constexpr uint64_t MEBIBYTE = uint64_t{1} << 20U;

}  // namespace

ScanOptions scanOptionsOf(const NORVScanConfig& settings, ScanLane lane) {
    return {.archives = settings.scanCompressed,
            .layers = settings.compressionLayer,
            .memberSizeLimit = settings.compressFileSizeLimit * MEBIBYTE,
            .lane = lane};
}

ScanResult notFullyScanned(std::string detail) { return {Verdict::NOT_FULLY_SCANNED, "", std::move(detail)}; }

}  // namespace keldra
