#include "webui/cgi/au_config.h"

#include "norv/log.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/updates.h"
#include "norv/text_form.h"
#include "norv/week_day.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/text_file.h"
#include "webui/cgi/utils/configuration.h"
#include "webui/cgi/utils/form_binding.h"
#include "webui/cgi/utils/response_pages.h"

#include <libintl.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view DIGITS = "0123456789";
/// Content of a progress file whose update was refused.
constexpr const char* DUPLICATE = "DUPLICATE";
constexpr char NOT_COMPLETED[] = "Update not completed.";

constexpr char CATEGORY[] = "Varnel";
constexpr SettingsPage PAGE = {
    .header = "Scheduled Update",
    .failTitle = "Unable to apply the new scheduled update settings.",
    .backURL = "./scanoption.cgi?id=scheduled_update",
    .pageTemplate = "Update/Update_Scheduled.html",
};

uint8_t withBit(uint8_t components, uint8_t bit, bool on) {
    return static_cast<uint8_t>(on ? components | bit : components & ~bit);
}

/// The selection with the form's choice in it. A field that holds anything at all is a choice, even "false" or "0";
/// others rely on it.
uint8_t chosenComponents(const CQSControl& request, uint8_t components) {
    components = withBit(components, UPDATE_VIRUS_PATTERN, !request.getEnv("VirusPattern").empty());
    components = withBit(components, UPDATE_SPYWARE_PATTERN, !request.getEnv("SpywarePattern").empty());
    return withBit(components, UPDATE_SCAN_ENGINE, !request.getEnv("ScanEngine").empty());
}

std::string progressFile(const NORVConfig& config, const std::string& requestId) {
    std::string path;
    ConfigGetVarPath(config, path);
    std::array<char, 256> name{};
    std::snprintf(name.data(), name.size() - 1, "%s_%s.txt", "progress", requestId.c_str());
    return path + "/" + name.data();
}

void markAsDuplicate(const NORVConfig& config, const std::string& requestId) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        std::fopen(progressFile(config, requestId).c_str(), "we"), std::fclose);
    if (file) std::fputs(DUPLICATE, file.get());
}

void showEnd(CPageWrapper& page, const char* title, const std::string& reason) {
    page.addDStringItem("__FAIL_TITLE__", dgettext("messages", title));
    page.addDStringItem("__REASON__", reason);
    page.outputPage("Update/update_fail.html");
}

/// `tenths`: decimal digits, or nothing as long as nothing is reported.
void showPercent(CPageWrapper& page, const std::string& tenths) {
    const auto percent = static_cast<int32_t>(static_cast<uint32_t>(nearestNumber(tenths)) * 10U);
    if (percent > 99) {
        page.outputPage("Update/update_progress2.html");
        return;
    }
    AddOneItem(page, "iProgressPercent", percent);
    page.addDStringItem("__PROGRESS_PERCENT__", tenths + "0%");
    page.outputPage("Update/update_progress.html");
}

void showComponents(CPageWrapper& page, uint8_t components) {
    GetCheckbox(page, "bUpdateEngine", components & UPDATE_SCAN_ENGINE);
    GetCheckbox(page, "bUpdatePattern", components & UPDATE_VIRUS_PATTERN);
    GetCheckbox(page, "bUpdateSpywarePattern", components & UPDATE_SPYWARE_PATTERN);
}

void showScheduledSettings(CPageWrapper& page, const NORVConfig& config) {
    const NORVAUConfig au(config);
    FillUpdateInformation(page, au, UPDATE_SCHEDULED);
    GetCheckbox(page, "bEnableScheduledUpdate", au.scheduled.kind);
    AssignOneItem(page, config, CATEGORY, "Schedule", "Schedule");
    AssignOneItem(page, config, CATEGORY, "ScheduledTime", "ScheduledTime");
    AssignOneItem(page, config, CATEGORY, "ScheduledWDay", "ScheduledWDay");
    // The page's variable is spelt so; templates rely on it.
    AssignOneItem(page, config, CATEGORY, "RandomizedUpdate", "sRandomlizedUpdate");
    page.outputPage(PAGE.pageTemplate);
}

/// Any answer but a refusal will do, also one without a record; others rely on it.
bool fetchScheduledRecord(NORVScheduledAUConfig& record) {
    auto answer = askService(protocol::GetSettings<NORVScheduledAUConfig>());
    if (!answer.readable) return false;
    if (answer.reply.settings) record = std::move(*answer.reply.settings);
    return true;
}

void readPeriod(const CQSControl& request, NORVScheduledAUConfig& record) {
    const std::string choice = request.getEnv("R2");
    if (choice == "V4") {
        record.kind = NORVScheduledAUConfig::HOURLY;
        record.period = 0;
    } else if (choice == "V5") {
        record.kind = NORVScheduledAUConfig::DAILY;
        record.period = request.getEnv<int>("DAILY_PERIOD");
    } else {
        record.kind = NORVScheduledAUConfig::WEEKLY;
        record.period = request.getEnv<int>("WEEKLY_PERIOD");
    }
}

void readSchedule(const CQSControl& request, NORVScheduledAUConfig& record) {
    const std::string enabled = request.getEnv("cbEnableScheduledUpdate");
    if (enabled.empty() || enabled == "OFF") {
        record.kind = NORVScheduledAUConfig::OFF;
        return;
    }
    record.components = chosenComponents(request, record.components);
    readPeriod(request, record);
    record.time = request.getEnv("Time") + ":" + request.getEnv("Time_min") + ":00";
    const std::string weekDay = request.getEnv("D2");
    NORV_TRACE("sWeekDay = %s", weekDay.c_str());
    record.weekDay = toWeekDay(weekDay);
}

}  // namespace

void RunManualUpdate(const NORVConfig& config, const CQSControl& request) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    NORVManualAUConfig update(config);
    update.components = chosenComponents(request, update.components);
    ExecuteManualUpdate(config, update, request.getEnv("RequestID"));
    // Whatever came of it; the page that asks for the progress tells.
    page.outputPage("error.html");
}

SET_UPDATE_OPTION_RESULT ExecuteManualUpdate(const NORVConfig& config, const NORVManualAUConfig& update,
                                             const std::string& requestId) {
    NORV_TRACE("Enter");
    if (!isValidRequestID(requestId)) {
        NORV_LOG(NORV_LOG_ERROR, "Invalid request id [%s]", requestId.c_str());
        return SET_UPDATE_FAILED;
    }
    if (askService(protocol::StartManualUpdate{requestId, update})) {
        NORV_TRACE("Execute Manual AU OK");
        return SET_UPDATE_OK;
    }
    // It says Scan where it means an update; others look for these words.
    NORV_LOG(NORV_LOG_REFUSED, "Execute Manual Scan Failed");
    markAsDuplicate(config, requestId);
    return SET_UPDATE_FAILED;
}

bool isValidRequestID(const std::string& requestId) { return protocol::isRequestId(requestId); }

int GetUpdateProgress(const NORVConfig& config, const std::string& requestId) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    std::string content;
    readTextFile(progressFile(config, requestId), content);
    const std::string line = firstLine(content);
    if (line == DUPLICATE) {
        showEnd(page, NOT_COMPLETED, "There is another update currently in progress.");
    } else if (line.find_first_not_of(DIGITS) == std::string::npos) {
        showPercent(page, line);
    } else if (line.find("current") != std::string::npos) {
        showEnd(page, "Update complete", line);
    } else {
        showEnd(page, NOT_COMPLETED, line);
    }
    return 1;
}

void FillUpdateInformation(CPageWrapper& page, const NORVAUConfig& au, UPDATE_TYPE type) {
    NORV_TRACE("Enter");
    if (type == UPDATE_SCHEDULED) showComponents(page, au.scheduled.components);
    if (type == UPDATE_MANUAL) showComponents(page, au.manual.components);
    page.addDStringItem("__SCAN_ENGINE_VERSION__", au.engineVersion);
    page.addDStringItem("__VIRUS_PATTERN_VERSION__", au.virusPatternVersion);
    page.addDStringItem("__SPYWARE_PATTERN_VERSION__", au.spywarePatternVersion);
    page.addDStringItem("__ENGINE_LAST_UPDATE__", au.engineLastUpdate);
    page.addDStringItem("__PATTERN_LAST_UPDATE__", au.virusPatternLastUpdate);
    page.addDStringItem("__SPYWARE_PATTERN_LAST_UPDATE__", au.spywarePatternLastUpdate);
}

int GetScheduledUpdateOption(const NORVConfig& config, const CQSControl& request, bool save) {
    NORV_TRACE("ENTER");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    // The page's variable is an int; nothing is decided by it.
    AddOneItem(page, "sLastModifiedDate", static_cast<int>(config.lastModified()));
    if (save) {
        writeSaveAnswer(page, SaveScheduledUpdateConfig(request), PAGE);
    } else {
        showScheduledSettings(page, config);
    }
    return 1;
}

SET_UPDATE_OPTION_RESULT SaveScheduledUpdateConfig(const CQSControl& request) {
    NORV_TRACE("Enter");
    NORVScheduledAUConfig record;
    if (!fetchScheduledRecord(record)) return SET_UPDATE_FAILED;
    readSchedule(request, record);
    const auto answer = sendRecord(record);
    if (!answer) return SET_UPDATE_FAILED;
    return answer.reply.backupResult == protocol::SettingsSaved::DISK_FULL ? SET_UPDATE_DISK_FULL : SET_UPDATE_OK;
}
