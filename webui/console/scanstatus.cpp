#include "webui/console/json_response.h"
#include "webui/console/json_value.h"
#include "webui/console/service_text.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

/// Finds sent at a time; the script asks for the rest.
constexpr int MAX_FINDS = 200;

void writeNumber(JsonWriter& json, const char* name, const IPCMessage& reply, const char* parameter) {
    json.Key(name);
    json.Int64(reply.value<std::int64_t>(parameter));
}

void writeFind(JsonWriter& json, const rapidjson::Value& find) {
    json.StartObject();
    for (const char* const name : {"path", "signature", "type"}) writeMember(json, name, textOf(find, name));
    writeMember(json, "detail", translateServiceText(textOf(find, "detail")));
    for (const char* const name : {"infected", "left"}) {
        json.Key(name);
        json.Bool(flagOf(find, name));
    }
    json.EndObject();
}

/// The finds of the service's list, at most MAX_FINDS.
void writeFinds(JsonWriter& json, const std::string& list) {
    const rapidjson::Document finds = parseList(list);
    json.Key("finds");
    json.StartArray();
    const rapidjson::SizeType count = std::min<rapidjson::SizeType>(finds.Size(), MAX_FINDS);
    for (rapidjson::SizeType i = 0; i < count; ++i) writeFind(json, finds[i]);
    json.EndArray();
}

void writeStatus(JsonWriter& json, const IPCMessage& status) {
    writeNumber(json, "state", status, "Status");
    writeNumber(json, "total", status, "Total");
    writeNumber(json, "scanned", status, "Scanned");
    writeNumber(json, "found", status, "VirusFound");
    writeNumber(json, "notFullyScanned", status, "NotFullyScanned");
    writeNumber(json, "skipped", status, "Skipped");
    writeNumber(json, "bytes", status, "Bytes");
    writeNumber(json, "started", status, "Started");
    writeNumber(json, "ended", status, "Ended");
    writeMember(json, "kind", status.value<std::string>("Kind"));
    writeMember(json, "currentFile", status.value<std::string>("CurrentFile"));
    writeMember(json, "message", translateServiceText(status.value<std::string>("Message")));
}

/// The scan "RequestID": how far it is, and its finds from number "From" on.
int showScan(const ConsoleRequest& request) {
    IPCMessage status(IPCMessage::GET, IPCMessage::MANUAL_SCAN_STATUS);
    status.addParam("RequestID", request.text("RequestID"));
    IPCMessage finds(IPCMessage::GET, IPCMessage::SCAN_FINDS);
    finds.addParam("RequestID", request.text("RequestID"));
    const int from = std::max(request.fields.getEnv<int>("From"), 0);
    finds.addParam("From", from);
    IPCMessage progress;
    IPCMessage found;
    if (!askService(status, progress, "404 Not Found") || !askService(finds, found, "404 Not Found")) return 1;
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        writeStatus(json, progress);
        json.Key("from");
        json.Int(from);
        writeFinds(json, found.value<std::string>("Finds"));
        json.EndObject();
    }));
}

}  // namespace

int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, showScan, WithoutService::TELL);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
