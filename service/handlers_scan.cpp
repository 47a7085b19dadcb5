#include "norv/path_list.h"
#include "norv/scan_config.h"
#include "service/file_walk.h"
#include "service/handlers.h"
#include "service/json_text.h"
#include "service/scan_jobs.h"
#include "service/service.h"
#include "service/virus_types.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stop_token>
#include <system_error>
#include <vector>

namespace keldra::handlers {

namespace {

constexpr std::size_t MAX_FINDS = 1000;
constexpr std::size_t MAX_FOLDERS = 2000;
constexpr std::size_t MAX_EXAMPLES = 20;
/// How long a preview may count, well within the time for which a client waits.
constexpr std::chrono::seconds PREVIEW_TIME{5};

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
        json.member("type", find.type).member("detail", find.detail);
    });
}

/// Files of the folders with and without the excludes, counted for a limited time.
struct Preview {
    std::size_t kept = 0;
    std::size_t left = 0;
    std::vector<std::string> examples;
    bool complete = true;
};

Preview preview(const WalkPlan& plan) {
    Preview result;
    WalkPlan everything{.roots = plan.roots, .excludeFolders = {}, .excludePatterns = {}, .wanted = {}};
    std::stop_source stop;
    const auto end = std::chrono::steady_clock::now() + PREVIEW_TIME;
    const auto look = [&](const std::string& path) {
        const bool out = liesBelow(path, plan.excludeFolders) ||
                         matchesPattern(std::filesystem::path(path).filename(), plan.excludePatterns);
        ++(out ? result.left : result.kept);
        if (out && result.examples.size() < MAX_EXAMPLES) result.examples.push_back(path);
        if (std::chrono::steady_clock::now() < end) return;
        result.complete = false;
        stop.request_stop();
    };
    walkFiles(
        everything, [&look](const ScannedFile& file) { look(file.path); },
        [&look](const std::string& path, const std::string&) { look(path); }, stop.get_token());
    return result;
}

}  // namespace

bool getVirusTypes(Service&, const IPCMessage&, IPCMessage& reply) {
    reply.addParam("VirusTypes", virusTypeList());
    return true;
}

bool startManualScan(Service& service, const IPCMessage&, IPCMessage& reply) {
    const NORVManualScanConfig record(*service.configuration().snapshot());
    const NORVScanConfig& settings = record;
    return started(
        service.scans().start(
            {.kind = ScanKind::MANUAL, .settings = settings, .roots = {}, .workers = record.scanWorkers, .act = true}),
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
    return true;
}

bool startPathScan(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const std::vector<std::string> paths = splitPathList(request.value<std::string>("Paths"));
    const auto absolute = [](const std::string& path) { return std::filesystem::path(path).is_absolute(); };
    if (paths.empty() || !std::all_of(paths.begin(), paths.end(), absolute)) {
        reply.addParam("Message", "No paths, or one that is not absolute.");
        return false;
    }
    NORVScanConfig settings = NORVManualScanConfig(*service.configuration().snapshot());
    // Who names a file wants it scanned, whatever the pages select.
    settings.includeExtList.clear();
    settings.includeHVExtList = settings.zelscan = false;
    settings.scanCompressed = true;
    const bool act = request.value<int>("Act") == 1;
    return started(service.scans().start({.kind = ScanKind::PATH, .settings = settings, .roots = paths, .act = act}),
                   reply);
}

bool getScanFinds(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const auto id = request.value<std::string>("RequestID");
    if (!service.scans().status(id)) return false;
    JsonText json;
    json.array([&] {
        for (const ScanFind& find : service.scans().finds(id, request.value<std::size_t>("From"), MAX_FINDS))
            writeFind(json, find);
    });
    reply.addParam("Finds", json.text());
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

bool previewExcludes(Service&, const IPCMessage& request, IPCMessage& reply) {
    const Preview result = preview({.roots = splitPathList(request.value<std::string>("ScanPaths")),
                                    .excludeFolders = splitPathList(request.value<std::string>("ExcludePaths")),
                                    .excludePatterns = splitPathList(request.value<std::string>("ExcludePatterns")),
                                    .wanted = {}});
    JsonText json;
    json.array([&] {
        for (const std::string& path : result.examples) json.value(path);
    });
    reply.addParam("Kept", result.kept);
    reply.addParam("Left", result.left);
    reply.addParam("Examples", json.text());
    reply.addParam("Complete", result.complete ? 1 : 0);
    return true;
}

bool listFolders(Service&, const IPCMessage& request, IPCMessage& reply) {
    const std::filesystem::path folder = request.value<std::string>("Path");
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    if (!folder.is_absolute() || error) {
        reply.addParam("Message", error ? error.message() : "The path is not absolute.");
        return false;
    }
    std::vector<std::string> names;
    for (; !error && entry != std::filesystem::directory_iterator() && names.size() < MAX_FOLDERS;
         entry.increment(error)) {
        std::error_code ignored;
        if (entry->is_directory(ignored) && !entry->is_symlink(ignored)) names.push_back(entry->path().filename());
    }
    std::sort(names.begin(), names.end());
    JsonText json;
    json.array([&] {
        for (const std::string& name : names) json.value(name);
    });
    reply.addParam("Folders", json.text());
    return true;
}

}  // namespace keldra::handlers
