#include "norv/path_list.h"
#include "norv/scan_config.h"
#include "webui/cgi/manual_scan.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/utils/configuration.h"
#include "webui/console/json_response.h"
#include "webui/console/json_value.h"

#include <string>

namespace {

/// The folders of a manual scan, in a request and in the settings.
struct Field {
    const char* name;
    const char* parameter;
    std::string NORVScanConfig::*setting;
};
constexpr Field FIELDS[] = {
    {"scanPaths", "ScanPaths", &NORVScanConfig::scanPaths},
    {"excludePaths", "ExcludePaths", &NORVScanConfig::excludePaths},
    {"excludePatterns", "ExcludePatterns", &NORVScanConfig::excludePatterns},
};

void writeStamp(JsonWriter& json, const NORVConfig& config) {
    writeMember(json, "stamp", std::to_string(config.lastModified()));
}

bool fetchSettings(NORVManualScanConfig& record) {
    if (GetManualScanConfig(record)) return true;
    answerError("503 Service Unavailable", NOT_RESPONDING);
    return false;
}

/// What is chosen at the moment.
int showSettings(const ConsoleRequest& request) {
    NORVManualScanConfig record;
    if (!fetchSettings(record)) return 1;
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        for (const Field& field : FIELDS) {
            json.Key(field.name);
            json.StartArray();
            for (const std::string& entry : splitPathList(record.*field.setting)) writeText(json, entry);
            json.EndArray();
        }
        writeStamp(json, request.config);
        json.EndObject();
    }));
}

void writeFolder(JsonWriter& json, const rapidjson::Value& folder) {
    json.StartObject();
    for (const char* const name : {"path", "name"}) writeMember(json, name, textOf(folder, name));
    json.Key("folders");
    json.Bool(flagOf(folder, "folders"));
    json.EndObject();
}

/// The folders in a folder; those that may be chosen at all when no path is given.
int listFolders(const ConsoleRequest& request) {
    IPCMessage message(IPCMessage::GET, IPCMessage::FOLDER_LIST);
    message.addParam("Path", request.text("path"));
    IPCMessage reply;
    if (!askService(message, reply, "404 Not Found")) return 1;
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        json.Key("folders");
        json.StartArray();
        const rapidjson::Document folders = parseList(reply.value<std::string>("Folders"));
        for (const auto& folder : folders.GetArray()) writeFolder(json, folder);
        json.EndArray();
        json.Key("complete");
        json.Bool(!reply.hasParam("Complete") || reply.value<int>("Complete") != 0);
        json.EndObject();
    }));
}

/// What the excludes would leave out.
int preview(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    IPCMessage message(IPCMessage::GET, IPCMessage::EXCLUDE_PREVIEW);
    for (const Field& field : FIELDS) message.addParam(field.parameter, request.text(field.name));
    IPCMessage reply;
    if (!askService(message, reply)) return 1;
    const auto examples = reply.value<std::string>("Examples");
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        json.Key("kept");
        json.Uint64(reply.value<std::uint64_t>("Kept"));
        json.Key("left");
        json.Uint64(reply.value<std::uint64_t>("Left"));
        json.Key("complete");
        json.Bool(reply.value<int>("Complete") != 0);
        json.Key("examples");
        json.RawValue(examples.empty() ? "[]" : examples.data(), examples.empty() ? 2 : examples.size(),
                      rapidjson::kArrayType);
        json.EndObject();
    }));
}

int askToOverwrite() {
    return answerJson(jsonText([](JsonWriter& json) {
        json.StartObject();
        json.Key("modified");
        json.Bool(true);
        json.EndObject();
    }));
}

/// The stamp of the settings just stored, which the page's other form goes on with.
int answerSaved(const ConsoleRequest& request) {
    NORVConfig stored(request.config);
    getNORVConfigFromEntity(stored);
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        writeStamp(json, stored);
        json.EndObject();
    }));
}

int save(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    if (mustAskToOverwrite(request.config, request.fields, SaveUnasked::WHEN_EQUAL)) return askToOverwrite();
    NORVManualScanConfig record;
    if (!fetchSettings(record)) return 1;
    for (const Field& field : FIELDS) record.*field.setting = request.text(field.name);
    IPCMessage message(IPCMessage::SET, IPCMessage::MANUAL_SCAN_CONFIG);
    message.addParam("ManualScanConfig", record);
    IPCMessage reply;
    return askService(message, reply) ? answerSaved(request) : 1;
}

int answer(const ConsoleRequest& request) {
    if (!request.configOk) return answerError("503 Service Unavailable", "Unable to read the configuration file.");
    const std::string mode = request.text("mode");
    if (mode == "preview") return preview(request);
    if (mode == "save") return save(request);
    if (mode == "settings") return showSettings(request);
    return listFolders(request);
}

}  // namespace

int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, answer, WithoutService::TELL);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
