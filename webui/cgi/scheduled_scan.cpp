#include "webui/cgi/scheduled_scan.h"

#include "norv/log.h"
#include "norv/week_day.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/scan_form.h"
#include "webui/cgi/scan_page.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/form_binding.h"

#include <cstdint>
#include <string>

namespace {

constexpr SettingsPage PAGE = {
    .header = "Scheduled Scan",
    .failTitle = "Unable to apply the new scheduled scan settings.",
    .backURL = "./scanoption.cgi?id=scheduled_scan",
    .pageTemplate = "ScanOptions/Scheduled.html",
};

uint32_t frequencyOf(const std::string& choice) {
    if (choice == "V4") return NORVScheduledScanConfig::DAILY;
    return choice == "V5" ? NORVScheduledScanConfig::WEEKLY : NORVScheduledScanConfig::MONTHLY;
}

void showSettings(CPageWrapper& page, const NORVConfig& config, const NORVScheduledScanConfig& record) {
    SetScheduledScanConfig(page, record);
    addConfigStamp(page, config);
    SaveCommandComplete(page, SAVE_SHOW_SETTINGS, PAGE);
}

/// Writes nothing when there are no settings to be had; others rely on it.
void showAlert(CPageWrapper& page, const NORVConfig& config, const CQSControl& form) {
    NORVScheduledScanConfig record;
    if (!GetScheduledScanConfig(record)) return;
    ConstructScheduledScanConfig(form, record);
    addOverwriteQuestion(page);
    showSettings(page, config, record);
}

}  // namespace

void ShowScheduledScanConfig(const NORVConfig& config) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    NORVScheduledScanConfig record;
    // Without settings nothing is written; others rely on it.
    if (GetScheduledScanConfig(record)) showSettings(page, config, record);
}

void SaveScheduledScanConfig(const NORVConfig& config, const CQSControl& form) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    if (mustAskToOverwrite(config, form, SaveUnasked::WHEN_NOT_OLDER)) {
        NORV_TRACE("show alert");
        showAlert(page, config, form);
        return;
    }
    SaveCommandComplete(page, SaveScheduledScanConfig(form) ? SAVE_OK : SAVE_FAILED, PAGE);
}

bool SaveScheduledScanConfig(const CQSControl& form) {
    NORV_TRACE("ENTER");
    NORVScheduledScanConfig record;
    if (!GetScheduledScanConfig(record)) return false;
    ConstructScheduledScanConfig(form, record);
    return static_cast<bool>(sendRecord(record));
}

bool GetScheduledScanConfig(NORVScheduledScanConfig& record) { return fetchRecord(record); }

void ConstructScheduledScanConfig(const CQSControl& form, NORVScheduledScanConfig& record) {
    ConstructScanConfig(form, record);
    if (form.getEnv("Scan_config5").empty()) {
        record.frequency = NORVScheduledScanConfig::OFF;
        return;
    }
    record.frequency = frequencyOf(form.getEnv("R2"));
    record.time = form.getEnv("Time_hh") + ":" + form.getEnv("Time_minute") + ":00";
    record.weekDay = toWeekDay(form.getEnv("D2"));
    record.monthDay = static_cast<uint32_t>(form.getEnv<int>("D6"));
}

void SetScheduledScanConfig(CPageWrapper& page, const NORVScheduledScanConfig& record) {
    NORV_TRACE("ENTER");
    GetCheckbox(page, "bScheduleScanCheckbox", record.frequency != NORVScheduledScanConfig::OFF ? 1 : 0);
    substituteQuoted(page, "ScheduledTime", record.time);
    page.addDStringItem("__SCHEDULED_WDAY__", record.weekDay);
    substituteQuoted(page, "ScheduledMDay", record.monthDay);
    substituteQuoted(page, "ScheduledFrequency", record.frequency);
    SetScanConfigVars(page, record);
    page.addDStringItem("__SCHEDULED_SCAN_DISABLED__", "");
    page.addDStringItem("__DOT_LINE__", "");
}
