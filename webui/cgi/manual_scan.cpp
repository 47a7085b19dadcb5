#include "webui/cgi/manual_scan.h"

#include "norv/log.h"
#include "norv/protocol/scans.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/scan_form.h"
#include "webui/cgi/scan_page.h"
#include "webui/cgi/scan_settings.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/form_binding.h"

#include <algorithm>
#include <cstdint>

namespace {

void readForm(const CQSControl& form, NORVManualScanConfig& record) { ConstructScanConfig(form, record); }

void show(CPageWrapper& page, const NORVConfig& config, const NORVManualScanConfig& record) {
    SetManualScanConfig(page, record);
    addConfigStamp(page, config);
}

constexpr ScanSettings<NORVManualScanConfig> SETTINGS = {
    .page = {.header = "Manual Scan",
             .failTitle = "Unable to apply the new manual scan settings.",
             .backURL = "./scanoption.cgi?id=manual_scan",
             .pageTemplate = "ScanOptions/Manual.html"},
    .unasked = SaveUnasked::WHEN_EQUAL,
    .readForm = readForm,
    .show = show,
};

const char* trueOrFalse(bool value) { return value ? "true" : "false"; }

void showStoredSettings(CPageWrapper& page, const NORVConfig& config) {
    if (fillFromService(page, config, SETTINGS)) SaveCommandComplete(page, SAVE_SHOW_SETTINGS, SETTINGS.page);
}

void showAlert(CPageWrapper& page, const NORVConfig& config, const CQSControl& request, bool startScan) {
    if (!fillFromForm(page, config, request, SETTINGS)) return;
    if (startScan) substituteNumber(page, "iDoScanNow", 1);
    SettingsPage asking = SETTINGS.page;
    asking.backURL = "./scanoption.cgi?page=ScanOptions/Manual.html";
    SaveCommandComplete(page, SAVE_SHOW_SETTINGS, asking);
}

/// A count as the pages take it: the nearest number of 32 bits.
int shown(int64_t count) { return static_cast<int>(std::clamp<int64_t>(count, INT32_MIN, INT32_MAX)); }

void showCounters(CPageWrapper& page, const protocol::ScanProgress& progress, const char* pageTemplate) {
    ReplaceOneItemWithInteger(page, "__TOTAL__", shown(progress.total));
    ReplaceOneItemWithInteger(page, "__SCANNED__", shown(progress.scanned));
    ReplaceOneItemWithInteger(page, "__INFECTED__", shown(progress.found));
    page.outputPage(pageTemplate);
}

void showRunning(CPageWrapper& page, const protocol::ScanProgress& progress) {
    const int total = shown(progress.total);
    const int64_t percent = total == 0 ? 0 : int64_t{shown(progress.scanned)} * 100 / total;
    page.addDStringItem("__PROGRESS_PERCENT__", std::to_string(percent) + "%");
    AddOneItem(page, "iProgressPercent", static_cast<int>(percent));
    AddOneItem(page, "iScannedFiles", shown(progress.scanned));
    AddOneItem(page, "iTotalFilesNeedToScan", shown(progress.total));
    ReplaceOneItemWithInteger(page, "__INFECTED__", shown(progress.found));
    page.outputPage("ScanOptions/scan_progress.html");
}

void showProgress(CPageWrapper& page, const protocol::ScanProgress& progress) {
    using enum protocol::ScanState;
    switch (progress.state) {
        case NOT_RUNNING:
            NORV_LOG(NORV_LOG_REFUSED, "MANUAL_SCAN_STATUS_NOT_RUNNING returned. Shouldn't happen");
            page.outputPage("error.html");
            break;
        case FAILED:
            page.outputPage("ScanOptions/scan_progress_error.html");
            break;
        case STOPPED:
            // The page says why where it would say how far.
            page.addDStringItem("__PROGRESS_PERCENT__", progress.message);
            showCounters(page, progress, "ScanOptions/scan_progress_stop.html");
            break;
        case RUNNING:
            showRunning(page, progress);
            break;
        default:
            showCounters(page, progress, "ScanOptions/scan_progress2.html");
    }
}

}  // namespace

void GetManualScanOption(const NORVConfig& config, const CQSControl& request, bool save, bool start_scan) {
    NORV_TRACE("ENTER save=%s   start_scan=%s", trueOrFalse(save), trueOrFalse(start_scan));
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.addDStringItem("__START_SCAN__", trueOrFalse(start_scan));
    if (!save) {
        showStoredSettings(page, config);
        return;
    }
    NORV_TRACE("Save operation");
    if (mustAskToOverwrite(config, request, SETTINGS.unasked)) {
        NORV_TRACE("show alert");
        showAlert(page, config, request, start_scan);
        return;
    }
    NORV_TRACE("saving configs");
    const bool saved = SaveManualScanConfig(request);
    if (!start_scan) {
        SaveCommandComplete(page, saved ? SAVE_OK : SAVE_FAILED, SETTINGS.page);
        return;
    }
    if (!saved) {
        NORV_TRACE("Refreshing page");
        GetCheckbox(page, "bSaveFailed", 1);
    }
    showStoredSettings(page, config);
}

bool GetManualScanConfig(NORVManualScanConfig& record) { return fetchRecord(record); }

bool SaveManualScanConfig(const CQSControl& request) { return saveForm(request, SETTINGS); }

void SetManualScanConfig(CPageWrapper& page, const NORVManualScanConfig& record) { SetScanConfigVars(page, record); }

std::string StartManualScan() {
    const auto answer = askService(protocol::StartManualScan());
    return answer ? answer.reply.requestId : "";
}

bool StopManualScan(const std::string& requestID) {
    NORV_TRACE("ENTER, requestID=%s", requestID.c_str());
    return static_cast<bool>(askService(protocol::StopManualScan{requestID}));
}

void GetManualScanProgress(const NORVConfig& /*config*/, const std::string& requestID) {
    NORV_TRACE("ENTER requestID=%s", requestID.c_str());
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    page.addDStringItem("__REQUEST_ID__", requestID);
    const auto answer = askService(protocol::GetScanProgress{requestID});
    if (!answer) {
        NORV_TRACE("GET ManualScanStatus failed but we don't put an error");
        page.outputPage("error.html");
        return;
    }
    showProgress(page, answer.reply);
}

int ReplaceOneItemWithInteger(CPageWrapper& page, const char* name, int value) {
    NORV_TRACE("ENTER sVariableName=%s iValue=%d", name, value);
    page.addDStringItem(name, value);
    return 1;
}
