#include "norv/protocol/scans.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace {

/// Finds sent at a time; the script asks for the rest.
constexpr std::size_t MAX_FINDS = 200;

void writeFind(JsonText& json, const protocol::ScanFind& find) {
    json.object([&] {
        json.member("path", find.path).member("signature", find.signature).member("type", find.type);
        json.member("detail", translateServiceText(find.detail));
        json.member("infected", find.infected).member("left", find.left);
    });
}

/// At most MAX_FINDS.
void writeFinds(JsonText& json, const std::vector<protocol::ScanFind>& finds) {
    json.name("finds").array([&] {
        for (std::size_t i = 0; i < std::min(finds.size(), MAX_FINDS); ++i) writeFind(json, finds[i]);
    });
}

void writeProgress(JsonText& json, const protocol::ScanProgress& progress) {
    json.member("state", progress.state).member("total", progress.total).member("scanned", progress.scanned);
    json.member("found", progress.found).member("notFullyScanned", progress.notFullyScanned);
    json.member("skipped", progress.skipped).member("bytes", progress.bytes);
    json.member("started", progress.started).member("ended", progress.ended).member("kind", progress.kind);
    json.member("bytesDone", progress.bytesDone).member("bytesTotal", progress.bytesTotal);
    json.member("secondsLeft", progress.secondsLeft).member("paused", progress.paused);
    json.member("currentFile", progress.currentFile).member("message", translateServiceText(progress.message));
}

/// The scan "RequestID": how far it is, and its finds from number "From" on.
int showScan(const ConsoleRequest& request) {
    const std::string id = request.text("RequestID");
    const auto from = static_cast<uint64_t>(std::max(request.fields.getEnv<int>("From"), 0));
    const auto progress = askOrAnswer(protocol::GetScanProgress{id}, "404 Not Found");
    if (!progress) return 1;
    const auto finds = askOrAnswer(protocol::GetScanFinds{id, from}, "404 Not Found");
    if (!finds) return 1;
    JsonText json;
    json.object([&] {
        writeProgress(json, progress.reply);
        json.member("from", from);
        writeFinds(json, finds.reply.finds);
    });
    return answerJson(json.text());
}

/// Holds the scan up, or lets it go on.
int setPause(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    const std::string id = request.text("RequestID");
    const std::string action = request.text("action");
    if (action != "pause" && action != "resume")
        return answerError("400 Bad Request", "The request names nothing that can be done.");
    const bool done = action == "pause" ? static_cast<bool>(askOrAnswer(protocol::PauseScan{id}, "404 Not Found"))
                                        : static_cast<bool>(askOrAnswer(protocol::ResumeScan{id}, "404 Not Found"));
    return done ? answerJson("{}") : 1;
}

int handle(const ConsoleRequest& request) {
    return request.isPost() || request.has("action") ? setPause(request) : showScan(request);
}

}  // namespace

int main(int argc, char** argv) try {
    return runConsoleProgram(argc, argv, handle, WithoutService::TELL, AskedBy::PAGE);
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
