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

/// What a scan's progress and its summary both tell.
template <typename Told>
Told toldOf(const ScanStatus& status) {
    Told told;
    told.kind = scanKindName(status.kind);
    told.state = status.state;
    told.total = static_cast<decltype(told.total)>(status.total);
    told.scanned = static_cast<decltype(told.scanned)>(status.scanned);
    told.found = static_cast<decltype(told.found)>(status.found);
    told.notFullyScanned = status.notFullyScanned;
    told.skipped = status.skipped;
    told.bytes = status.bytes;
    told.started = status.started;
    told.ended = status.ended;
    told.message = status.message;
    told.outcome = scanOutcome(status);
    told.lastFile = status.lastFile;
    told.saved = status.saved;
    return told;
}

protocol::ScanProgress progressOf(const ScanStatus& status) {
    auto progress = toldOf<protocol::ScanProgress>(status);
    progress.currentFile = status.currentFile;
    progress.bytesDone = status.bytesDone;
    progress.bytesTotal = status.totalBytes;
    progress.counting = status.counting;
    progress.secondsLeft = status.secondsLeft;
    progress.paused = pauseName(status.paused);
    return progress;
}

}  // namespace

protocol::ScanSummary summaryOf(const ScanStatus& status) {
    auto summary = toldOf<protocol::ScanSummary>(status);
    summary.id = status.id;
    return summary;
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
