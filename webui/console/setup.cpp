#include "norv/protocol/notices.h"
#include "norv/protocol/service_settings.h"
#include "norv/protocol/settings.h"
#include "norv/protocol/status.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/console/console_page.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

#include <string>

namespace {

/// Every night, an hour before the scan that is proposed: it finds the newest signatures.
constexpr const char* UPDATE_TIME = "02:00:00";

/// What is switched on already, and folders that may be worth guarding.
int listState() {
    const auto settings = askOrAnswer(protocol::GetServiceSettings());
    if (!settings) return 1;
    std::string roots;
    for (const auto& setting : settings.reply.settings)
        if (setting.name == "shares.roots") roots = setting.value;
    NORVRealtimeScanConfig realtime;
    NORVScheduledScanConfig scan;
    NORVScheduledAUConfig update;
    if (!fetchRecord(realtime) || !fetchRecord(scan) || !fetchRecord(update))
        return answerError("503 Service Unavailable", NOT_RESPONDING);
    const auto notices = askService(protocol::GetNotices());
    JsonText json;
    json.object([&] {
        json.member("roots", roots);
        json.member("proposals", askService(protocol::GetShareProposals()).reply.proposals);
        json.member("realtime", realtime.scanDirection != 0);
        json.member("realtimePossible", askService(protocol::GetServiceStatus()).reply.realtimeAllowed);
        json.member("scan", scan.frequency != NORVScheduledScanConfig::OFF).member("scanTime", scan.time);
        json.member("update", update.kind != NORVScheduledAUConfig::OFF);
        json.member("notices", notices.reply.mail || notices.reply.hook);
    });
    return answerJson(json.text());
}

/// Sends a record; what goes wrong is answered.
template <typename Record>
bool store(const Record& record) {
    return static_cast<bool>(askOrAnswer(protocol::SetSettings<Record>{record}));
}

bool switchUpdates(bool on) {
    NORVScheduledAUConfig update;
    if (!fetchRecord(update) || (update.kind != NORVScheduledAUConfig::OFF) == on) return true;
    update.kind = on ? NORVScheduledAUConfig::DAILY : NORVScheduledAUConfig::OFF;
    update.period = 1;
    update.time = UPDATE_TIME;
    update.components = UPDATE_VIRUS_PATTERN | UPDATE_SPYWARE_PATTERN;
    return store(update);
}

/// `time`: "hh:mm", local.
bool switchScan(bool on, const std::string& time) {
    NORVScheduledScanConfig scan;
    if (!fetchRecord(scan)) return true;
    const bool was = scan.frequency != NORVScheduledScanConfig::OFF;
    if (!on && !was) return true;
    if (on && !was) scan.frequency = NORVScheduledScanConfig::DAILY;
    if (!on) scan.frequency = NORVScheduledScanConfig::OFF;
    if (on) scan.time = time + ":00";
    return store(scan);
}

bool switchRealtime(bool on) {
    NORVRealtimeScanConfig realtime;
    if (!fetchRecord(realtime) || (realtime.scanDirection != 0) == on) return true;
    realtime.scanDirection = on ? NORVRealtimeScanConfig::INCOMING | NORVRealtimeScanConfig::OUTGOING : 0;
    return store(realtime);
}

int apply(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    const bool done = switchUpdates(request.has("update")) &&
                      switchScan(request.has("scan"), request.text("scanTime")) &&
                      switchRealtime(request.has("realtime"));
    return done ? answerJson("{}") : 1;
}

int handle(const ConsoleRequest& request) {
    if (request.has("list")) return listState();
    if (request.has("action")) return apply(request);
    return showConsolePage("setup.html");
}

}  // namespace

/// The first steps on a fresh server: the page, what is switched on already, and switching on what was chosen.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
