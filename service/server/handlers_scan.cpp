#include "norv/path_list.h"
#include "norv/scan_config.h"
#include "service/base/json_text.h"
#include "service/engine/virus_types.h"
#include "service/scanning/scan_jobs.h"
#include "service/server/handlers.h"
#include "service/server/service.h"
#include "service/tree/share_roots.h"

#include <algorithm>
#include <filesystem>
#include <vector>

namespace keldra::handlers {

namespace {

constexpr std::size_t MAX_FINDS = 1000;

bool started(const ScanStart& start, IPCMessage& reply) {
    reply.addParam(start.started ? "RequestID" : "Message", start.started ? start.id : start.message);
    return start.started;
}

void writeStatus(JsonText& json, const ScanStatus& status) {
    json.object([&] {
        json.member("id", status.id).member("kind", scanKindName(status.kind));
        json.member("state", static_cast<int>(status.state)).member("total", status.total);
        json.member("scanned", status.scanned).member("found", status.found);
        json.member("notFullyScanned", status.notFullyScanned).member("skipped", status.skipped);
        json.member("bytes", status.bytes).member("started", status.started).member("ended", status.ended);
        json.member("message", status.message);
    });
}

void writeFind(JsonText& json, const ScanFind& find) {
    json.object([&] {
        json.member("path", find.path).member("infected", find.infected).member("signature", find.signature);
        json.member("type", find.type).member("detail", find.detail).member("left", find.left);
    });
}

}  // namespace

bool getVirusTypes(Service&, const IPCMessage&, IPCMessage& reply) {
    reply.addParam("VirusTypes", virusTypeList());
    return true;
}

bool startManualScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    const auto config = service.configuration().snapshot();
    const NORVManualScanConfig record(*config);
    const NORVScanConfig& settings = record;
    return started(service.scans().start({.kind = ScanKind::MANUAL,
                                          .settings = settings,
                                          .roots = {},
                                          .shareRoots = shareRoots(*config),
                                          .workers = record.scanWorkers,
                                          .act = true}),
                   reply);
}

bool stopScan(Service& service, const IPCMessage& request, IPCMessage&) {
    return service.scans().stop(request.value<std::string>("RequestID"));
}

bool getScanStatus(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const auto status = service.scans().status(request.value<std::string>("RequestID"));
    if (!status) return false;
    reply.addParam("Status", static_cast<int>(status->state));
    reply.addParam("Total", status->total);
    reply.addParam("Scanned", status->scanned);
    reply.addParam("VirusFound", status->found);
    reply.addParam("Message", status->message);
    reply.addParam("NotFullyScanned", status->notFullyScanned);
    reply.addParam("Skipped", status->skipped);
    reply.addParam("Bytes", status->bytes);
    reply.addParam("CurrentFile", status->currentFile);
    reply.addParam("Kind", scanKindName(status->kind));
    reply.addParam("Started", status->started);
    reply.addParam("Ended", status->ended);
    return true;
}

bool startPathScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const std::vector<std::string> paths = splitPathList(request.value<std::string>("Paths"));
    const auto absolute = [](const std::string& path) { return std::filesystem::path(path).is_absolute(); };
    if (paths.empty() || !std::all_of(paths.begin(), paths.end(), absolute)) {
        reply.addParam("Message", "No paths, or one that is not absolute.");
        return false;
    }
    const NORVManualScanConfig record(*service.configuration().snapshot());
    const NORVScanConfig& common = record;
    NORVScanConfig settings = common;
    // Who names a file wants it scanned, whatever the pages select.
    settings.includeExtList.clear();
    settings.includeHVExtList = settings.zelscan = false;
    settings.scanCompressed = true;
    const bool act = request.value<int>("Act") == 1;
    return started(service.scans().start({.kind = ScanKind::PATH,
                                          .settings = settings,
                                          .roots = paths,
                                          .shareRoots = {},
                                          .workers = request.value<uint32_t>("Workers"),
                                          .act = act}),
                   reply);
}

bool getScanFinds(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const auto id = request.value<std::string>("RequestID");
    if (!service.scans().status(id)) {
        reply.addParam("Message", "There is no such scan.");
        return false;
    }
    const std::vector<ScanFind> finds = service.scans().finds(id, request.value<std::size_t>("From"), MAX_FINDS);
    std::size_t written = 0;
    JsonText json;
    json.array([&] {
        for (; written < finds.size() && !json.full(); ++written) writeFind(json, finds[written]);
    });
    reply.addParam("Finds", json.text());
    reply.addParam("More", written < finds.size() || written == MAX_FINDS ? 1 : 0);
    return true;
}

bool getScanHistory(Service& service, const IPCMessage&, IPCMessage& reply) {
    JsonText json;
    json.array([&] {
        for (const ScanStatus& status : service.scans().history()) writeStatus(json, status);
    });
    reply.addParam("Scans", json.text());
    return true;
}

}  // namespace keldra::handlers
