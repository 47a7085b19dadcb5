#include "service/realtime/on_access_settings.h"

#include "norv/path_list.h"
#include "service/base/limits.h"

#include <algorithm>

namespace keldra {

OnAccessSettings onAccessSettings(const NORVRealtimeScanConfig& record) {
    OnAccessSettings settings;
    settings.incoming = (record.scanDirection & NORVRealtimeScanConfig::INCOMING) != 0;
    settings.outgoing = (record.scanDirection & NORVRealtimeScanConfig::OUTGOING) != 0;
    settings.folders = splitPathList(record.scanPaths);
    settings.neverScan = splitPathList(record.excludePaths);
    settings.timeLimit = std::chrono::seconds(std::clamp(record.scanTimeLimit, 1U, MAX_SCAN_TIME_LIMIT));
    settings.denyOnTimeout = record.denyOnTimeout;
    return settings;
}

}  // namespace keldra
