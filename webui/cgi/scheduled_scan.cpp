#include "webui/cgi/scheduled_scan.h"

#include "norv/log.h"
#include "norv/week_day.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/scan_form.h"
#include "webui/cgi/scan_page.h"
#include "webui/cgi/scan_settings.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/form_binding.h"

#include <cstdint>
#include <string>

namespace {

void show(CPageWrapper& page, const NORVConfig& config, const NORVScheduledScanConfig& record) {
    SetScheduledScanConfig(page, record);
    addConfigStamp(page, config);
}

constexpr ScanSettings<NORVScheduledScanConfig> SETTINGS = {
    .page = {.header = "Scheduled Scan",
             .failTitle = "Unable to apply the new scheduled scan settings.",
             .backURL = "./scanoption.cgi?id=scheduled_scan",
             .pageTemplate = "ScanOptions/Scheduled.html"},
    .unasked = SaveUnasked::WHEN_NOT_OLDER,
    .readForm = ConstructScheduledScanConfig,
    .show = show,
};

uint32_t frequencyOf(const std::string& choice) {
    if (choice == "V4") return NORVScheduledScanConfig::DAILY;
    return choice == "V5" ? NORVScheduledScanConfig::WEEKLY : NORVScheduledScanConfig::MONTHLY;
}

}  // namespace

void ShowScheduledScanConfig(const NORVConfig& config) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    if (fillFromService(page, config, SETTINGS)) SaveCommandComplete(page, SAVE_SHOW_SETTINGS, SETTINGS.page);
}

void SaveScheduledScanConfig(const NORVConfig& config, const CQSControl& form) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    if (mustAskToOverwrite(config, form, SETTINGS.unasked)) {
        NORV_TRACE("show alert");
        if (fillFromForm(page, config, form, SETTINGS)) SaveCommandComplete(page, SAVE_SHOW_SETTINGS, SETTINGS.page);
        return;
    }
    SaveCommandComplete(page, SaveScheduledScanConfig(form) ? SAVE_OK : SAVE_FAILED, SETTINGS.page);
}

bool SaveScheduledScanConfig(const CQSControl& form) {
    NORV_TRACE("ENTER");
    return saveForm(form, SETTINGS);
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
