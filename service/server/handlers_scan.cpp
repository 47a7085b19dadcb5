#include "norv/path_list.h"
#include "norv/protocol/scans.h"
#include "norv/scan_config.h"
#include "service/engine/virus_types.h"
#include "service/scanning/scan_jobs.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"
#include "service/tree/share_roots.h"

#include <algorithm>
#include <filesystem>
#include <vector>

namespace keldra::handlers {

namespace {

constexpr std::size_t MAX_FINDS = 1000;
constexpr const char* NOT_RUNNING = "There is no such scan running.";

template <typename Request>
std::string idIn(const IPCMessage& request) {
    return protocol::read<Request>(request).requestId;
}

bool started(const ScanStart& start, IPCMessage& reply) {
    if (!start.started) return refuse(start.message, reply);
    write(reply, protocol::ScanStarted{start.id});
    return true;
}

const char* pauseName(ScanPause::Why why) {
    if (why == ScanPause::Why::RUNS) return "";
    return why == ScanPause::Why::ASKED ? protocol::PAUSED_ASKED : protocol::PAUSED_WINDOW;
}

protocol::ScanProgress progressOf(const ScanStatus& status) {
    return {.state = status.state,
            .total = static_cast<std::int64_t>(status.total),
            .scanned = static_cast<std::int64_t>(status.scanned),
            .found = static_cast<std::int64_t>(status.found),
            .notFullyScanned = status.notFullyScanned,
            .skipped = status.skipped,
            .bytes = status.bytes,
            .started = status.started,
            .ended = status.ended,
            .kind = scanKindName(status.kind),
            .currentFile = status.currentFile,
            .message = status.message,
            .bytesDone = status.bytesDone,
            .bytesTotal = status.totalBytes,
            .counting = status.counting,
            .secondsLeft = status.secondsLeft,
            .paused = pauseName(status.paused),
            .outcome = scanOutcome(status),
            .lastFile = status.lastFile,
            .saved = status.saved};
}

}  // namespace

protocol::ScanSummary summaryOf(const ScanStatus& status) {
    return {.id = status.id,
            .kind = scanKindName(status.kind),
            .state = status.state,
            .total = status.total,
            .scanned = status.scanned,
            .found = status.found,
            .notFullyScanned = status.notFullyScanned,
            .skipped = status.skipped,
            .bytes = status.bytes,
            .started = status.started,
            .ended = status.ended,
            .message = status.message,
            .outcome = scanOutcome(status),
            .lastFile = status.lastFile,
            .saved = status.saved};
}

bool pauseScan(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply) {
    return scans.pause(idIn<protocol::PauseScan>(request), true) || refuse(NOT_RUNNING, reply);
}

bool resumeScan(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply) {
    return scans.pause(idIn<protocol::ResumeScan>(request), false) || refuse(NOT_RUNNING, reply);
}

bool getVirusTypes(IPCMessage& reply) {
    write(reply, protocol::VirusTypes{virusTypeList()});
    return true;
}

bool startManualScan(ConfigurationStore& configuration, ScanJobs& scans, IPCMessage& reply) {
    const auto config = configuration.snapshot();
    const NORVManualScanConfig record(*config);
    const NORVScanConfig& settings = record;
    return started(scans.start({.kind = ScanKind::MANUAL,
                                .settings = settings,
                                .roots = {},
                                .shareRoots = shareRoots(*config),
                                .workers = record.scanWorkers,
                                .act = true}),
                   reply);
}

bool stopScan(ScanJobs& scans, const IPCMessage& request) {
    return scans.stop(idIn<protocol::StopManualScan>(request));
}

bool getScanStatus(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply) {
    const auto status = scans.status(idIn<protocol::GetScanProgress>(request));
    if (!status) return false;
    write(reply, progressOf(*status));
    return true;
}

bool startPathScan(ConfigurationStore& configuration, ScanJobs& scans, const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::StartPathScan>(request);
    const std::vector<std::string> paths = splitPathList(wanted.paths);
    const auto absolute = [](const std::string& path) { return std::filesystem::path(path).is_absolute(); };
    if (paths.empty() || !std::all_of(paths.begin(), paths.end(), absolute)) {
        return refuse("No paths, or one that is not absolute.", reply);
    }
    const NORVManualScanConfig record(*configuration.snapshot());
    const NORVScanConfig& common = record;
    NORVScanConfig settings = common;
    // Who names a file wants it scanned, whatever the pages select.
    settings.includeExtList.clear();
    settings.includeHVExtList = settings.zelscan = false;
    settings.scanCompressed = true;
    return started(scans.start({.kind = ScanKind::PATH,
                                .settings = settings,
                                .roots = paths,
                                .shareRoots = {},
                                .workers = wanted.workers,
                                .act = wanted.act}),
                   reply);
}

bool getScanFinds(ScanJobs& scans, const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::GetScanFinds>(request);
    if (!scans.status(wanted.requestId)) return refuse("There is no such scan.", reply);
    protocol::ScanFinds page{.finds = scans.finds(wanted.requestId, wanted.from, MAX_FINDS), .more = false};
    page.more = page.finds.size() == MAX_FINDS;
    page.more = protocol::cutToReply(page.finds) || page.more;
    write(reply, page);
    return true;
}

bool getScanHistory(ScanJobs& scans, IPCMessage& reply) {
    protocol::ScanHistory history;
    for (const ScanStatus& status : scans.history()) history.scans.push_back(summaryOf(status));
    write(reply, history);
    return true;
}

}  // namespace keldra::handlers
