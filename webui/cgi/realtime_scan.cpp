#include "webui/cgi/realtime_scan.h"

#include "norv/log.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/scan_form.h"
#include "webui/cgi/scan_page.h"
#include "webui/cgi/scan_settings.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/form_binding.h"

#include <libintl.h>

#include <string>

namespace {

void readForm(const CQSControl& form, NORVRealtimeScanConfig& record) {
    ConstructScanDirection(form, record);
    ConstructScanConfig(form, record);
}

constexpr ScanSettings<NORVRealtimeScanConfig> SETTINGS = {
    .page = {.header = "Real-time Scan",
             .failTitle = "Unable to apply the new real-time scan settings.",
             .backURL = "./scanoption.cgi?id=realtime_scan",
             .pageTemplate = "ScanOptions/Real-time.html"},
    .unasked = SaveUnasked::WHEN_NOT_OLDER,
    .readForm = readForm,
    .show = SetRealTimeScanConfig,
};

constexpr char DISABLED[] = "Real-time Scan has been disabled.";
constexpr char NO_KERNEL_HOOK[] =
    "The required Kernel Hook Module (KHM) for this Linux kernel version is not loaded. Load the KHM and try again.";
// The blanks between the tags belong to it.
constexpr char DOT_LINE[] =
    "<table border=\"0\" cellspacing=\"0\" width=\"100%\">          <tr>            <td width=\"100%\" "
    "background=\"../images/dotline.gif\"><img border=\"0\" src=\"../images/spacer(1).gif\" width=\"1\" "
    "height=\"1\"></td>          </tr>        </table>";

void showSettings(CPageWrapper& page, const NORVConfig& config) {
    if (!fillFromService(page, config, SETTINGS)) return;
    NORV_TRACE("display page");
    SaveCommandComplete(page, SAVE_SHOW_SETTINGS, SETTINGS.page);
}

void setNotice(CPageWrapper& page, const std::string& text, const char* line) {
    page.addDStringItem("__REALTIME_SCAN_DISABLED__", text);
    page.addDStringItem("__DOT_LINE__", line);
}

/// Real-time scan cannot work at all.
void setDisabled(CPageWrapper& page, const std::string& reason) {
    setNotice(page, reason, DOT_LINE);
    GetCheckbox(page, "bRealTimeScanDisabled", 1);
}

}  // namespace

void GetRealTimeScanOption(const NORVConfig& config, const CQSControl& request, bool save) {
    NORV_TRACE("ENTER save = %s", save ? "true" : "false");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    if (!save) {
        showSettings(page, config);
        return;
    }
    NORV_TRACE("Save operation");
    if (mustAskToOverwrite(config, request, SETTINGS.unasked)) {
        NORV_TRACE("show alert");
        const bool filled = fillFromForm(page, config, request, SETTINGS);
        SaveCommandComplete(page, filled ? SAVE_SHOW_SETTINGS : SAVE_FAILED, SETTINGS.page);
        return;
    }
    NORV_TRACE("saving configs");
    SaveCommandComplete(page, SaveRealtimeScanConfig(request) ? SAVE_OK : SAVE_FAILED, SETTINGS.page);
}

bool GetRealtimeScanConfig(NORVRealtimeScanConfig& record) { return fetchRecord(record); }

bool SaveRealtimeScanConfig(const CQSControl& request) { return saveForm(request, SETTINGS); }

void ConstructScanDirection(const CQSControl& request, NORVRealtimeScanConfig& record) {
    record.scanDirection &= ~(NORVRealtimeScanConfig::INCOMING | NORVRealtimeScanConfig::OUTGOING);
    if (request.getEnv("Scan_config5").empty()) return;
    const bool outgoing = !request.getEnv("Scan_config4").empty();
    const bool incoming = !request.getEnv("Scan_config3").empty() || !outgoing;
    if (incoming) record.scanDirection |= NORVRealtimeScanConfig::INCOMING;
    if (outgoing) record.scanDirection |= NORVRealtimeScanConfig::OUTGOING;
}

void SetRealTimeScanConfig(CPageWrapper& page, const NORVConfig& config, const NORVRealtimeScanConfig& record) {
    NORV_TRACE("ENTER");
    SetScanDirection(page, record);
    SetScanConfigVars(page, record);
    addConfigStamp(page, config);
}

void SetScanDirection(CPageWrapper& page, const NORVRealtimeScanConfig& record) {
    NORV_TRACE("ENTER");
    if (record.scanDirection != 0) {
        GetCheckbox(page, "IncomingStatusCheckbox", (record.scanDirection & NORVRealtimeScanConfig::INCOMING) ? 1 : 0);
        GetCheckbox(page, "OutgoingStatusCheckbox", (record.scanDirection & NORVRealtimeScanConfig::OUTGOING) ? 1 : 0);
        setNotice(page, "", "");
        GetCheckbox(page, "bRealTimeScanCheckbox", 1);
    } else {
        setNotice(page, DISABLED, DOT_LINE);
    }
    // The gravest reason comes last and is the one shown.
    if (!record.serviceRunning) setDisabled(page, std::string(gettext("Service is not running")) + gettext(DISABLED));
    if (!record.kernelHookModuleLoaded) setDisabled(page, NO_KERNEL_HOOK);
}
