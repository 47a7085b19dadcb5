#include "norv/locale.h"
#include "norv/log.h"
#include "norv/norv_config.h"
#include "webui/cgi/au_config.h"
#include "webui/cgi/authenticate.h"
#include "webui/cgi/default_ext.h"
#include "webui/cgi/logon.h"
#include "webui/cgi/manual_scan.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"
#include "webui/cgi/realtime_scan.h"
#include "webui/cgi/scheduled_scan.h"
#include "webui/cgi/startup.h"
#include "webui/cgi/utils/response_pages.h"

#include <array>
#include <string>
#include <string_view>

namespace {

/// Sends the id of the scan that was started, or nothing, as plain text: a page script asked for it.
void startScan() {
    const std::string requestID = StartManualScan();
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_PLAIN);
    page.outputPage("");
    writeOut(requestID);
}

void stopScan(const NORVConfig& config, const CQSControl& request) {
    const std::string requestID = request.getEnv("RequestID");
    StopManualScan(requestID);
    GetManualScanProgress(config, requestID);
}

/// What `main` logs before it enters a handler.
enum class Note { NONE, ID, REQUEST_ID };

constexpr const char* ANY = nullptr;

struct Route {
    const char* id;
    const char* mode;
    Note note;
    void (*handle)(const NORVConfig& config, const CQSControl& request);
};

using C = NORVConfig;
using Q = CQSControl;

/// The site map, read from top to bottom: the first row whose id and mode fit handles the request.
constexpr std::array ROUTES = {
    Route{"realtime_scan", "Save", Note::NONE, [](const C& c, const Q& q) { GetRealTimeScanOption(c, q, true); }},
    Route{"realtime_scan", ANY, Note::NONE, [](const C& c, const Q& q) { GetRealTimeScanOption(c, q, false); }},
    Route{"manual_scan", "Save", Note::NONE, [](const C& c, const Q& q) { GetManualScanOption(c, q, true, false); }},
    Route{"manual_scan", "Scan", Note::NONE, [](const C&, const Q&) { startScan(); }},
    Route{"manual_scan", "SaveAndScan", Note::NONE,
          [](const C& c, const Q& q) { GetManualScanOption(c, q, true, true); }},
    Route{"manual_scan", ANY, Note::NONE, [](const C& c, const Q& q) { GetManualScanOption(c, q, false, false); }},
    Route{"scan_progress_query", ANY, Note::NONE,
          [](const C& c, const Q& q) { GetManualScanProgress(c, q.getEnv("RequestID")); }},
    Route{"stop_scan", ANY, Note::ID, stopScan},
    Route{"scheduled_scan", "Save", Note::NONE, [](const C& c, const Q& q) { SaveScheduledScanConfig(c, q); }},
    Route{"scheduled_scan", ANY, Note::NONE, [](const C& c, const Q&) { ShowScheduledScanConfig(c); }},
    Route{"manual_update", ANY, Note::NONE, [](const C& c, const Q& q) { RunManualUpdate(c, q); }},
    Route{"scheduled_update", "Save", Note::NONE, [](const C& c, const Q& q) { GetScheduledUpdateOption(c, q, true); }},
    Route{"scheduled_update", ANY, Note::NONE, [](const C& c, const Q& q) { GetScheduledUpdateOption(c, q, false); }},
    Route{"update_progress", ANY, Note::REQUEST_ID,
          [](const C& c, const Q& q) { GetUpdateProgress(c, q.getEnv("RequestID")); }},
    Route{"default_ext", ANY, Note::NONE, [](const C& c, const Q&) { GetHVDefaultExt(c); }},
    Route{"logoff", ANY, Note::NONE, [](const C&, const Q& q) { LogoffNorv(q); }},
    Route{ANY, ANY, Note::NONE, [](const C&, const Q&) { NotSupportYet(); }},
};

const Route& findRoute(std::string_view id, std::string_view mode) {
    const auto* route = ROUTES.begin();
    while ((route->id && id != route->id) || (route->mode && mode != route->mode)) ++route;
    return *route;
}

struct ConfigErrorPage {
    std::string_view contained;
    const char* header;
    const char* backLink;
};

constexpr std::array CONFIG_ERROR_PAGES = {
    ConfigErrorPage{"realtime_scan", "Real-time Scan", "./scanoption.cgi?id=realtime_scan"},
    ConfigErrorPage{"manual_scan", "Manual Scan", "./scanoption.cgi?id=manual_scan"},
    ConfigErrorPage{"scheduled_scan", "Scheduled Scan", "./scanoption.cgi?id=scheduled_scan"},
    ConfigErrorPage{"scheduled_update", "Scheduled Update", "./scanoption.cgi?id=scheduled_update"},
};

/// Saving must come by POST, whatever the page.
bool savesWithoutPost(const CQSControl& request, std::string_view mode) {
    return (mode == "Save" || mode == "SaveAndScan") && request.requestMethod() != CQSControl::POST;
}

}  // namespace

/// The page for a configuration that could not be read, by what the request's id contains; for any other id nothing is
/// written.
/// By value, since the log shows the signature.
// cppcheck-suppress passedByValue
void OutputConfigFileFormatError(std::string sType) {  // NOLINT(performance-unnecessary-value-param)
    NORV_TRACE("ENTER sType=%s", sType.c_str());
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    for (const ConfigErrorPage& entry : CONFIG_ERROR_PAGES) {
        if (sType.find(entry.contained) == std::string::npos) continue;
        showErrorPage(page, entry.header, "Unable to read the configuration file.",
                      "The configuration file may be corrupted.", entry.backLink);
        return;
    }
}

int main(int argc, char** argv) try {
    NORVConfig config;
    const bool configOk = loadConfigurationAndOpenLog(config, argc > 0 ? argv[0] : nullptr);
    NORV_TRACE("Enter");
    set_norv_locale();
    CQSControl request;
    CAuthenticate session(config);
    if (!readRequest(request)) return 1;
    if (!checkSession(session, request)) return 1;
    const std::string id = request.getEnv("id");
    const std::string mode = request.getEnv("mode");
    if (!configOk) {
        OutputConfigFileFormatError(id);
        return 1;
    }
    if (savesWithoutPost(request, mode)) {
        session.DisplayLoginPage();
        return 1;
    }
    const Route& route = findRoute(id, mode);
    if (route.note == Note::ID) NORV_TRACE("%s", id.c_str());
    if (route.note == Note::REQUEST_ID) NORV_TRACE("RequestID = %s", request.getEnv("RequestID").c_str());
    route.handle(config, request);
    return 0;
} catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
