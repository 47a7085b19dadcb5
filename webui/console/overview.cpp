#include "norv/scan_config.h"
#include "webui/cgi/service_message.h"
#include "webui/console/json_response.h"
#include "webui/console/json_value.h"
#include "webui/console/service_text.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace {

constexpr int RUNNING = 4;
constexpr std::size_t LAST_FINDS = 5;
/// Scans whose finds are looked through for the last ones.
constexpr int SCANS_LOOKED_AT = 5;

/// A find or a file put away, whatever it was found by.
struct Find {
    std::int64_t when = 0;
    std::string path;
    std::string signature;
    std::string type;
    std::string detail;
    std::string scan;
};

/// What the service says; lists that it does not give are empty.
struct Report {
    IPCMessage status;
    IPCMessage update;
    rapidjson::Document scans;
    rapidjson::Document quarantine;
};

/// A list that the page can do without.
rapidjson::Document fetchList(const IPCMessage& message, const char* parameter) {
    IPCMessage reply;
    return parseList(exchangeAccepted(message, reply) ? reply.value<std::string>(parameter) : "");
}

void addFindsOf(const rapidjson::Value& scan, std::vector<Find>& finds) {
    IPCMessage message(IPCMessage::GET, IPCMessage::SCAN_FINDS);
    const std::string id = textOf(scan, "id");
    message.addParam("RequestID", id);
    const std::int64_t ended = numberOf(scan, "ended");
    const std::int64_t when = ended != 0 ? ended : numberOf(scan, "started");
    const rapidjson::Document found = fetchList(message, "Finds");
    for (const auto& find : found.GetArray()) {
        if (!flagOf(find, "infected")) continue;
        finds.push_back({when, textOf(find, "path"), textOf(find, "signature"), textOf(find, "type"),
                         translateServiceText(textOf(find, "detail")), id});
    }
}

/// The last finds of scans and of the real-time scan, newest first.
std::vector<Find> lastFinds(const Report& report) {
    std::vector<Find> finds;
    int looked = 0;
    for (const auto& scan : report.scans.GetArray()) {
        if (numberOf(scan, "found") == 0) continue;
        addFindsOf(scan, finds);
        if (++looked == SCANS_LOOKED_AT) break;
    }
    for (const auto& item : report.quarantine.GetArray()) {
        if (textOf(item, "task") != "realtime" || flagOf(item, "backup")) continue;
        finds.push_back({numberOf(item, "when"), textOf(item, "path"), textOf(item, "signature"), textOf(item, "type"),
                         translateServiceText("moved to quarantine"), ""});
    }
    std::stable_sort(finds.begin(), finds.end(), [](const Find& a, const Find& b) { return a.when > b.when; });
    finds.resize(std::min(finds.size(), LAST_FINDS));
    return finds;
}

void writeNumber(JsonWriter& json, const char* name, std::int64_t value) {
    json.Key(name);
    json.Int64(value);
}

void writeNumber(JsonWriter& json, const char* name, const IPCMessage& reply, const char* parameter) {
    writeNumber(json, name, reply.value<std::int64_t>(parameter));
}

void writeFlag(JsonWriter& json, const char* name, bool value) {
    json.Key(name);
    json.Bool(value);
}

void writeRealtime(JsonWriter& json, const NORVConfig& config, const IPCMessage& status) {
    json.Key("realtime");
    json.StartObject();
    writeFlag(json, "wanted", NORVRealtimeScanConfig(config).scanDirection != 0);
    writeFlag(json, "running", status.value<int>("RealtimeRunning") != 0);
    writeFlag(json, "possible", status.value<int>("RealtimeAllowed") != 0);
    json.EndObject();
}

void writeSignatures(JsonWriter& json, const IPCMessage& status) {
    json.Key("signatures");
    json.StartObject();
    writeFlag(json, "loaded", status.value<std::string>("Database") == "loaded");
    // Some or newer ones are not in use although others are.
    writeFlag(json, "unloaded", !status.value<std::string>("EngineMessage").empty());
    writeFlag(json, "loading", status.value<int>("Reloading") != 0);
    writeMember(json, "version", status.value<std::string>("DatabaseVersion"));
    writeNumber(json, "time", status, "DatabaseTime");
    writeNumber(json, "count", status, "Signatures");
    json.EndObject();
}

void writeUpdate(JsonWriter& json, const IPCMessage& status, const IPCMessage& update) {
    json.Key("update");
    json.StartObject();
    writeFlag(json, "running", update.value<int>("Running") != 0);
    writeMember(json, "id", update.value<std::string>("RequestID"));
    writeNumber(json, "progress", update.value<std::int64_t>("Progress") * 10);
    writeNumber(json, "next", status, "NextUpdate");
    json.EndObject();
}

void writeScan(JsonWriter& json, const rapidjson::Value& scan) {
    json.StartObject();
    for (const char* const name : {"id", "kind"}) writeMember(json, name, textOf(scan, name));
    for (const char* const name :
         {"state", "total", "scanned", "found", "notFullyScanned", "skipped", "started", "ended"})
        writeNumber(json, name, numberOf(scan, name));
    json.EndObject();
}

/// The running scans, and the newest one that ended.
void writeScans(JsonWriter& json, const rapidjson::Document& scans) {
    const auto isRunning = [](const rapidjson::Value& scan) { return numberOf(scan, "state") == RUNNING; };
    json.Key("running");
    json.StartArray();
    for (const auto& scan : scans.GetArray())
        if (isRunning(scan)) writeScan(json, scan);
    json.EndArray();
    const auto* const ended = std::find_if_not(scans.Begin(), scans.End(), isRunning);
    if (ended == scans.End()) return;
    json.Key("lastScan");
    writeScan(json, *ended);
}

void writeFinds(JsonWriter& json, const std::vector<Find>& finds) {
    json.Key("finds");
    json.StartArray();
    for (const Find& find : finds) {
        json.StartObject();
        writeNumber(json, "when", find.when);
        writeMember(json, "path", find.path);
        writeMember(json, "signature", find.signature);
        writeMember(json, "type", find.type);
        writeMember(json, "detail", find.detail);
        writeMember(json, "scan", find.scan);
        json.EndObject();
    }
    json.EndArray();
}

std::string reportText(const NORVConfig& config, const Report& report) {
    return jsonText([&](JsonWriter& json) {
        json.StartObject();
        writeNumber(json, "now", std::time(nullptr));
        writeFlag(json, "configured", report.status.value<std::string>("Configuration").empty());
        writeRealtime(json, config, report.status);
        writeSignatures(json, report.status);
        writeUpdate(json, report.status, report.update);
        writeScans(json, report.scans);
        writeNumber(json, "nextScan", report.status, "NextScan");
        writeNumber(json, "quarantined", report.status, "Quarantined");
        writeNumber(json, "untreated", report.status, "Untreated");
        writeMember(json, "untreatedScan", report.status.value<std::string>("UntreatedScan"));
        writeFinds(json, lastFinds(report));
        json.EndObject();
    });
}

int showOverview(const ConsoleRequest& request) {
    Report report;
    if (!askService({IPCMessage::GET, IPCMessage::SERVICE_STATUS}, report.status, "503 Service Unavailable")) return 1;
    exchangeAccepted({IPCMessage::GET, IPCMessage::UPDATE_STATUS}, report.update);
    report.scans = fetchList({IPCMessage::GET, IPCMessage::SCAN_HISTORY}, "Scans");
    report.quarantine = fetchList({IPCMessage::GET, IPCMessage::QUARANTINE}, "Items");
    return answerJson(reportText(request.config, report));
}

}  // namespace

int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, showOverview, WithoutService::TELL);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
