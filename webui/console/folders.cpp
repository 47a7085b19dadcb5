#include "norv/protocol/folders.h"
#include "norv/path_list.h"
#include "norv/scan_config.h"
#include "webui/cgi/scan_common.h"
#include "webui/console/json_response.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>

namespace {

/// The folders of a scan, in a request and in the settings.
struct Field {
    const char* name;
    std::string NORVScanConfig::*setting;
};
constexpr Field FIELDS[] = {
    {"scanPaths", &NORVScanConfig::scanPaths},
    {"excludePaths", &NORVScanConfig::excludePaths},
    {"excludePatterns", &NORVScanConfig::excludePatterns},
};

void writeStamp(JsonText& json, const NORVConfig& config) {
    json.member("stamp", std::to_string(config.lastModified()));
}

template <typename Record>
bool fetchSettings(Record& record) {
    if (fetchRecord(record)) return true;
    answerError("503 Service Unavailable", NOT_RESPONDING);
    return false;
}

/// When it cannot be had, that is answered as an error.
std::optional<NORVConfig> fetchConfiguration(const ConsoleRequest& request) {
    auto config = request.fetchConfiguration();
    if (!config) answerError("503 Service Unavailable", "Unable to read the configuration file.");
    return config;
}

/// What is chosen at the moment.
template <typename Record>
int showSettings(const ConsoleRequest& request) {
    const auto config = fetchConfiguration(request);
    Record record;
    if (!config || !fetchSettings(record)) return 1;
    JsonText json;
    json.object([&] {
        for (const Field& field : FIELDS) json.member(field.name, splitPathList(record.*field.setting));
        writeStamp(json, *config);
    });
    return answerJson(json.text());
}

/// The folders in a folder; those that may be chosen at all when no path is given.
int listFolders(const ConsoleRequest& request) {
    const auto answer = askOrAnswer(protocol::ListFolders{request.text("path")}, "404 Not Found");
    if (!answer) return 1;
    JsonText json;
    json.object([&] { json.member("folders", answer.reply.folders).member("complete", answer.reply.complete); });
    return answerJson(json.text());
}

/// What the excludes would leave out.
int preview(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    const auto answer = askOrAnswer(protocol::PreviewExcludes{.scanPaths = request.text("scanPaths"),
                                                              .excludePaths = request.text("excludePaths"),
                                                              .excludePatterns = request.text("excludePatterns")});
    if (!answer) return 1;
    const protocol::ExcludeEffect& effect = answer.reply;
    JsonText json;
    json.object([&] {
        json.member("kept", effect.kept).member("left", effect.left).member("complete", effect.complete);
        json.member("examples", effect.examples);
    });
    return answerJson(json.text());
}

int askToOverwrite() {
    JsonText json;
    json.object([&] { json.member("modified", true); });
    return answerJson(json.text());
}

/// The stamp of the settings just stored, which the page's other form goes on with.
int answerSaved(const ConsoleRequest& request, const NORVConfig& before) {
    const NORVConfig stored = request.fetchConfiguration().value_or(before);
    JsonText json;
    json.object([&] { writeStamp(json, stored); });
    return answerJson(json.text());
}

template <typename Record>
int save(const ConsoleRequest& request) {
    const auto config = fetchConfiguration(request);
    if (!config) return 1;
    if (mustAskToOverwrite(*config, request.fields, SaveUnasked::WHEN_EQUAL)) return askToOverwrite();
    Record record;
    if (!fetchSettings(record)) return 1;
    for (const Field& field : FIELDS) record.*field.setting = request.text(field.name);
    return askOrAnswer(protocol::SetSettings<Record>{record}) ? answerSaved(request, *config) : 1;
}

/// A kind of scan that has folders of its own.
struct Kind {
    const char* name;
    int (*show)(const ConsoleRequest& request);
    int (*save)(const ConsoleRequest& request);
};
constexpr Kind KINDS[] = {
    {"manual", showSettings<NORVManualScanConfig>, save<NORVManualScanConfig>},
    {"realtime", showSettings<NORVRealtimeScanConfig>, save<NORVRealtimeScanConfig>},
    {"scheduled", showSettings<NORVScheduledScanConfig>, save<NORVScheduledScanConfig>},
};

int answer(const ConsoleRequest& request) {
    const std::string mode = request.text("mode");
    if (mode == "preview") return preview(request);
    if (mode != "save" && mode != "settings") return listFolders(request);
    const std::string name = request.has("kind") ? request.text("kind") : "manual";
    const auto* const kind =
        std::find_if(std::begin(KINDS), std::end(KINDS), [&name](const Kind& known) { return name == known.name; });
    if (kind == std::end(KINDS)) return answerError("400 Bad Request", "There is no such scan.");
    if (mode == "settings") return kind->show(request);
    return requirePost(request) ? kind->save(request) : 1;
}

}  // namespace

int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, answer, WithoutService::TELL);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
