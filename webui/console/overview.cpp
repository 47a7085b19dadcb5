#include "norv/protocol/events.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/status.h"
#include "norv/protocol/updates.h"
#include "norv/scan_config.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace {

/// Finds that are shown, and events that are asked for: some only count further finds.
constexpr std::size_t LAST_FINDS = 5;
constexpr std::uint64_t EVENTS_ASKED_FOR = 10;

/// A find of whatever task.
struct Find {
    std::int64_t when = 0;
    std::string path;
    std::string signature;
    std::string detail;
    std::string task;

    static void visit(auto& record, auto&& field) {
        field("when", record.when);
        field("path", record.path);
        field("signature", record.signature);
        field("detail", record.detail);
        field("task", record.task);
    }
};

/// What the service says; lists that it does not give are empty.
struct Report {
    protocol::ServiceStatus status;
    protocol::UpdateProgress update;
    std::vector<protocol::ScanSummary> scans;
    std::vector<protocol::Event> finds;  ///< newest first
};

/// What the page can do without: as fresh when it cannot be had.
template <typename Request>
typename Request::Reply askIfPossible(const Request& request) {
    const auto answer = askService(request);
    return answer ? answer.reply : typename Request::Reply();
}

/// The last finds of all tasks, newest first.
std::vector<Find> lastFinds(const Report& report) {
    std::vector<Find> finds;
    for (const auto& event : report.finds) {
        if (event.path.empty()) continue;
        finds.push_back({event.time, event.path, event.signature, translateServiceText(event.action), event.task});
        if (finds.size() == LAST_FINDS) break;
    }
    return finds;
}

void writeRealtime(JsonText& json, const NORVConfig& config, const protocol::ServiceStatus& status) {
    json.name("realtime").object([&] {
        json.member("wanted", NORVRealtimeScanConfig(config).scanDirection != 0);
        json.member("running", status.realtimeRunning).member("possible", status.realtimeAllowed);
    });
}

void writeSignatures(JsonText& json, const protocol::ServiceStatus& status) {
    json.name("signatures").object([&] {
        json.member("loaded", status.database == protocol::DATABASE_LOADED);
        // Some or newer ones are not in use although others are.
        json.member("unloaded", !status.engineMessage.empty()).member("loading", status.reloading);
        json.member("version", status.databaseVersion).member("time", status.databaseTime);
        json.member("count", status.signatures);
    });
}

void writeUpdate(JsonText& json, const Report& report) {
    json.name("update").object([&] {
        json.member("running", report.update.running).member("id", report.update.requestId);
        json.member("progress", std::int64_t{report.update.progress} * 10).member("next", report.status.nextUpdate);
    });
}

void writeScan(JsonText& json, const protocol::ScanSummary& scan, const protocol::ScanProgress& progress = {}) {
    json.object([&] {
        json.member("id", scan.id).member("kind", scan.kind).member("state", scan.state).member("total", scan.total);
        json.member("scanned", scan.scanned).member("found", scan.found);
        json.member("notFullyScanned", scan.notFullyScanned).member("skipped", scan.skipped);
        json.member("started", scan.started).member("ended", scan.ended);
        json.member("bytesDone", progress.bytesDone).member("bytesTotal", progress.bytesTotal);
    });
}

/// Of the scans that ended the newest scheduled one and the newest by hand; a scan of single files only without these.
std::vector<protocol::ScanSummary> lastScans(const std::vector<protocol::ScanSummary>& scans) {
    std::vector<protocol::ScanSummary> last;
    const auto add = [&](const char* kind) {
        const auto found = std::find_if(scans.begin(), scans.end(), [kind](const auto& scan) {
            return scan.state != protocol::ScanState::RUNNING && scan.kind == kind;
        });
        if (found != scans.end()) last.push_back(*found);
    };
    for (const char* const kind : {protocol::KIND_SCHEDULED, protocol::KIND_MANUAL}) add(kind);
    if (last.empty()) add(protocol::KIND_PATH);
    return last;
}

void writeScans(JsonText& json, const std::vector<protocol::ScanSummary>& scans) {
    const auto isRunning = [](const auto& scan) { return scan.state == protocol::ScanState::RUNNING; };
    json.name("running").array([&] {
        for (const auto& scan : scans)
            if (isRunning(scan)) writeScan(json, scan, askIfPossible(protocol::GetScanProgress{scan.id}));
    });
    json.name("lastScans").array([&] {
        for (const auto& scan : lastScans(scans)) writeScan(json, scan);
    });
}

/// The service's verdict on this server and its reasons, the gravest first; without one the page says so.
void writeVerdict(JsonText& json, const protocol::ServiceStatus& status) {
    std::vector<protocol::VerdictReason> reasons = status.reasons;
    for (auto& reason : reasons) {
        reason.text = translateServiceText(reason.text);
        reason.detail = reasonDetailText(consoleWords(), reason.reason, reason.detail);
    }
    json.member("verdict", status.verdict).member("reasons", reasons);
}

std::string reportText(const NORVConfig& config, const Report& report) {
    JsonText json;
    json.object([&] {
        json.member("now", std::int64_t{std::time(nullptr)});
        writeVerdict(json, report.status);
        writeRealtime(json, config, report.status);
        writeSignatures(json, report.status);
        writeUpdate(json, report);
        writeScans(json, report.scans);
        json.member("nextScan", report.status.nextScan).member("quarantined", report.status.quarantined);
        json.member("untreated", report.status.untreated).member("untreatedScan", report.status.untreatedScan);
        json.member("finds", lastFinds(report));
    });
    return json.text();
}

int showOverview(const ConsoleRequest& request) {
    const auto status = askOrAnswer(protocol::GetServiceStatus(), "503 Service Unavailable");
    if (!status) return 1;
    protocol::ListEvents lastFindsAsked;
    lastFindsAsked.kinds = "find";
    lastFindsAsked.count = EVENTS_ASKED_FOR;
    const Report report{.status = status.reply,
                        .update = askIfPossible(protocol::GetUpdateProgress()),
                        .scans = askIfPossible(protocol::GetScanHistory()).scans,
                        .finds = askIfPossible(lastFindsAsked).events};
    return answerJson(reportText(request.fetchConfiguration().value_or(NORVConfig()), report));
}

}  // namespace

int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, showOverview, WithoutService::TELL, AskedBy::PAGE);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
