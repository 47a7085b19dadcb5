#include "webui/cgi/page_wrapper.h"
#include "webui/console/csv.h"
#include "webui/console/json_response.h"
#include "webui/console/json_value.h"
#include "webui/console/service_text.h"

#include <libintl.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Entry = rapidjson::Value;

constexpr std::string_view CSV_TYPE = "text/csv; charset=utf-8";

/// Reads a list of objects that the service sent. False when it is none, and that is answered as an error.
bool readList(const IPCMessage& reply, const char* parameter, rapidjson::Document& list) {
    const auto content = reply.value<std::string>(parameter);
    list.Parse<rapidjson::kParseIterativeFlag>(content.data(), content.size());
    const auto isObject = [](const Entry& entry) { return entry.IsObject(); };
    if (!list.HasParseError() && list.IsArray() && std::all_of(list.Begin(), list.End(), isObject)) return true;
    answerError("502 Bad Gateway", "The answer of the service cannot be read.");
    return false;
}

bool fetchScans(rapidjson::Document& scans) {
    IPCMessage reply;
    return askService({IPCMessage::GET, IPCMessage::SCAN_HISTORY}, reply) && readList(reply, "Scans", scans);
}

/// Reports of a scan, and whether there are more behind them.
struct Finds {
    rapidjson::Document list;
    bool more = false;
};

/// Those from number `from` on, as many as the service gives at a time.
bool fetchFinds(const std::string& requestID, std::size_t from, Finds& finds) {
    IPCMessage message(IPCMessage::GET, IPCMessage::SCAN_FINDS);
    message.addParam("RequestID", requestID);
    message.addParam("From", from);
    IPCMessage reply;
    if (!askService(message, reply, "404 Not Found") || !readList(reply, "Finds", finds.list)) return false;
    finds.more = reply.value<int>("More") != 0;
    return true;
}

/// {"name": list, "more": whether it goes on}, with one text of each entry in the console's language.
int answerList(const char* name, rapidjson::Document& list, const char* translated, bool more = false) {
    for (Entry& entry : list.GetArray()) {
        const std::string value = translateServiceText(textOf(entry, translated));
        if (!entry.HasMember(translated)) continue;
        entry[translated].SetString(value.data(), static_cast<rapidjson::SizeType>(value.size()), list.GetAllocator());
    }
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        json.Key(name);
        list.Accept(json);
        json.Key("more");
        json.Bool(more);
        json.EndObject();
    }));
}

int listScans() {
    rapidjson::Document scans;
    return fetchScans(scans) ? answerList("scans", scans, "message") : 1;
}

int listFinds(const ConsoleRequest& request) {
    const int from = std::max(0, request.fields.getEnv<int>("From"));
    Finds finds;
    if (!fetchFinds(request.text("RequestID"), static_cast<std::size_t>(from), finds)) return 1;
    return answerList("finds", finds.list, "detail", finds.more);
}

/// A time as spreadsheets understand it, in the server's time zone; nothing for 0.
std::string timeText(int64_t seconds) {
    const auto when = static_cast<std::time_t>(seconds);
    std::tm parts{};
    std::array<char, 32> buffer{};
    if (seconds == 0 || localtime_r(&when, &parts) == nullptr) return "";
    return {buffer.data(), std::strftime(buffer.data(), buffer.size(), "%Y-%m-%d %H:%M:%S", &parts)};
}

std::string kindText(const std::string& kind) {
    if (kind == "manual") return gettext("Manual Scan");
    if (kind == "scheduled") return gettext("Scheduled Scan");
    return kind == "path" ? gettext("Scan from the command line") : kind;
}

std::string stateText(int64_t state) {
    switch (state) {
        case 1:
            return gettext("stopped");
        case 2:
            return gettext("failed");
        case 3:
            return gettext("completed");
        case 4:
            return gettext("running");
        default:
            return "";
    }
}

std::string headings(std::vector<std::string> names) {
    for (std::string& name : names) name = gettext(name.c_str());
    return CSV_START + csvLine(names);
}

std::string scanLine(const Entry& scan) {
    const int64_t ended = numberOf(scan, "ended");
    const auto count = [&scan](const char* name) { return std::to_string(numberOf(scan, name)); };
    return csvLine({textOf(scan, "id"), kindText(textOf(scan, "kind")), stateText(numberOf(scan, "state")),
                    timeText(numberOf(scan, "started")), timeText(ended),
                    ended == 0 ? "" : std::to_string(ended - numberOf(scan, "started")), count("scanned"),
                    count("found"), count("notFullyScanned"), count("skipped"), count("bytes"),
                    translateServiceText(textOf(scan, "message"))});
}

int exportScans() {
    rapidjson::Document scans;
    if (!fetchScans(scans)) return 1;
    std::string csv = headings({"Scan", "Kind", "State", "Started (server time)", "Ended (server time)", "Seconds",
                                "Files scanned", "Infected", "Not fully scanned", "Skipped", "Bytes", "Remark"});
    for (const Entry& scan : scans.GetArray()) csv += scanLine(scan);
    return answerDownload(std::string(CSV_TYPE), "keldra-scans.csv", csv);
}

std::string findLine(const Entry& find) {
    return csvLine({textOf(find, "path"), flagOf(find, "infected") ? gettext("Infected") : gettext("Not fully scanned"),
                    textOf(find, "signature"), textOf(find, "type"), translateServiceText(textOf(find, "detail"))});
}

int exportFinds(const std::string& requestID) {
    if (requestID.find_first_not_of("0123456789_") != std::string::npos) {
        return answerError("404 Not Found", "There is no such scan.");
    }
    std::string csv = headings({"File", "Result", "Malware", "Type", "What was done"});
    std::size_t from = 0;
    for (bool more = true; more;) {
        Finds finds;
        if (!fetchFinds(requestID, from, finds)) return 1;
        for (const Entry& find : finds.list.GetArray()) csv += findLine(find);
        from += finds.list.Size();
        more = finds.more && !finds.list.Empty();
    }
    return answerDownload(std::string(CSV_TYPE), "keldra-scan-" + requestID + ".csv", csv);
}

int showPage() {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    return page.outputPage("history.html") ? 0 : 1;
}

int handle(const ConsoleRequest& request) {
    if (request.has("csv")) return request.has("RequestID") ? exportFinds(request.text("RequestID")) : exportScans();
    if (request.has("RequestID")) return listFinds(request);
    return request.has("list") ? listScans() : showPage();
}

}  // namespace

/// The scans that were made: the page, lists of scans and of what each found as JSON, and both as CSV.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
