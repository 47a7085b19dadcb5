#include "norv/protocol/scans.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/console/console_page.h"
#include "webui/console/csv.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

#include <libintl.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::string_view CSV_TYPE = "text/csv; charset=utf-8";

/// {"name": list, "more": whether it goes on}, with one text of each entry in the console's language.
template <typename Entry>
int answerList(const char* name, std::vector<Entry> list, std::string Entry::*translated, bool more = false) {
    for (Entry& entry : list) entry.*translated = translateServiceText(entry.*translated);
    JsonText json;
    json.object([&] { json.member(name, list).member("more", more); });
    return answerJson(json.text());
}

int listScans() {
    const auto answer = askOrAnswer(protocol::GetScanHistory());
    return answer ? answerList("scans", answer.reply.scans, &protocol::ScanSummary::message) : 1;
}

/// Reports from number `from` on, as many as the service gives at a time.
auto fetchFinds(const std::string& requestID, uint64_t from) {
    return askOrAnswer(protocol::GetScanFinds{requestID, from}, "404 Not Found");
}

int listFinds(const ConsoleRequest& request) {
    const auto from = static_cast<uint64_t>(std::max(0, request.fields.getEnv<int>("From")));
    const auto answer = fetchFinds(request.text("RequestID"), from);
    return answer ? answerList("finds", answer.reply.finds, &protocol::ScanFind::detail, answer.reply.more) : 1;
}

std::string kindText(const std::string& kind) {
    if (kind == protocol::KIND_MANUAL) return gettext("Manual Scan");
    if (kind == protocol::KIND_SCHEDULED) return gettext("Scheduled Scan");
    return kind == protocol::KIND_PATH ? gettext("Scan from the command line") : kind;
}

std::string stateText(protocol::ScanState state) {
    switch (state) {
        using enum protocol::ScanState;
        case STOPPED:
            return gettext("stopped");
        case FAILED:
            return gettext("failed");
        case COMPLETED:
            return gettext("completed");
        case RUNNING:
            return gettext("running");
        case NOT_RUNNING:
            break;
    }
    return "";
}

std::string scanLine(const protocol::ScanSummary& scan) {
    const std::string seconds = scan.ended == 0 ? "" : std::to_string(scan.ended - scan.started);
    return csvLine({scan.id, kindText(scan.kind), stateText(scan.state), csvTime(scan.started), csvTime(scan.ended),
                    seconds, std::to_string(scan.scanned), std::to_string(scan.found),
                    std::to_string(scan.notFullyScanned), std::to_string(scan.skipped), std::to_string(scan.bytes),
                    translateServiceText(scan.message)});
}

int exportScans() {
    const auto answer = askOrAnswer(protocol::GetScanHistory());
    if (!answer) return 1;
    std::string csv = headings({"Scan", "Kind", "State", "Started (server time)", "Ended (server time)", "Seconds",
                                "Files scanned", "Infected", "Not fully scanned", "Skipped", "Bytes", "Remark"});
    for (const auto& scan : answer.reply.scans) csv += scanLine(scan);
    return answerDownload(std::string(CSV_TYPE), "keldra-scans.csv", csv);
}

std::string findLine(const protocol::ScanFind& find) {
    return csvLine({find.path, find.infected ? gettext("Infected") : gettext("Not fully scanned"), find.signature,
                    find.type, translateServiceText(find.detail)});
}

int exportFinds(const std::string& requestID) {
    if (!protocol::isRequestId(requestID)) return answerError("404 Not Found", "There is no such scan.");
    std::string csv = headings({"File", "Result", "Malware", "Type", "What was done"});
    uint64_t from = 0;
    for (bool more = true; more;) {
        const auto answer = fetchFinds(requestID, from);
        if (!answer) return 1;
        const auto& finds = answer.reply.finds;
        for (const auto& find : finds) csv += findLine(find);
        from += finds.size();
        more = answer.reply.more && !finds.empty();
    }
    return answerDownload(std::string(CSV_TYPE), "keldra-scan-" + requestID + ".csv", csv);
}

int showPage() { return showConsolePage("history.html"); }

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
