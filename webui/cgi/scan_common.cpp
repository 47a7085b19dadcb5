#include "webui/cgi/scan_common.h"

#include "norv/log.h"
#include "norv/protocol/scans.h"
#include "webui/cgi/service_message.h"
#include "webui/cgi/utils/form_binding.h"
#include "webui/cgi/utils/response_pages.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>

namespace {

const char* orEmpty(const char* text) { return text ? text : ""; }

void writeAnswer(CPageWrapper& page, int iSettingMode, const SettingsPage& settings, const char* failReason) {
    switch (iSettingMode) {
        case SAVE_OK:
            CommonResponsePage(page, settings.header, SETTINGS_SAVED, "", settings.backURL);
            break;
        case SAVE_FAILED:
            CommonResponsePage(page, settings.header, settings.failTitle, failReason, settings.backURL);
            break;
        case SAVE_WITHOUT_BACKUP:
            CommonResponsePageDiskFull(page, settings.header, SETTINGS_SAVED, settings.backURL);
            break;
        case SAVE_ANSWERED:
            break;
        default:
            page.outputPage(orEmpty(settings.pageTemplate));
    }
}

}  // namespace

void SaveCommandComplete(CPageWrapper& page, int iSettingMode, const char* sHeader, const char* sFailTitle,
                         const char* sFailReason, const char* sBackURL, const char* sNormalPage) {
    NORV_TRACE("ENTER iSettingMode=%d sHeader=%s sFailTitle=%s sFailReason=%s sBackURL=%s sNormalPage=%s", iSettingMode,
               orEmpty(sHeader), orEmpty(sFailTitle), orEmpty(sFailReason), orEmpty(sBackURL), orEmpty(sNormalPage));
    writeAnswer(page, iSettingMode, {sHeader, sFailTitle, sBackURL, sNormalPage}, sFailReason);
}

void SaveCommandComplete(CPageWrapper& page, int iSettingMode, const SettingsPage& settings) {
    SaveCommandComplete(page, iSettingMode, settings.header, settings.failTitle, SERVICE_NOT_RESPONDING,
                        settings.backURL, settings.pageTemplate);
}

void writeSaveAnswer(CPageWrapper& page, int iSettingMode, const SettingsPage& settings) {
    writeAnswer(page, iSettingMode, settings, SERVICE_NOT_RESPONDING);
}

bool mustAskToOverwrite(const NORVConfig& config, const CQSControl& form, SaveUnasked rule) {
    const auto built = numberParameter<int64_t>(form, "hvLastConfigFileModifiedDate");
    const int64_t current = config.lastModified();
    const bool changed = rule == SaveUnasked::WHEN_EQUAL ? current != built : current > built;
    return changed && form.getEnv("bOverWrite") != "true";
}

void addOverwriteQuestion(CPageWrapper& page) { GetCheckbox(page, "bIsConfigFileModified", 1); }

void addConfigStamp(CPageWrapper& page, const NORVConfig& config) {
    page.addDStringItem("__CONFIG_FILE_LAST_MODIFIED__", config.lastModified());
}

void substituteNumber(CPageWrapper& page, const std::string& name, int32_t value) {
    page.addDStringItem(name + "=0", name + "=" + std::to_string(value));
}

void substituteSelect(CPageWrapper& page, const char* selectName, int oneBased) {
    std::array<char, 1024> marker{};
    std::array<char, 1024> substitution{};
    std::snprintf(marker.data(), marker.size(), "%s=0", selectName);
    if (oneBased == 0) {
        std::snprintf(substitution.data(), substitution.size(), "%s=\"\"", selectName);
    } else {
        std::snprintf(substitution.data(), substitution.size(), "%s=%d", selectName,
                      zeroBased(static_cast<uint32_t>(oneBased)));
    }
    NORV_TRACE("%s ==> %s", marker.data(), substitution.data());
    page.addDStringItem(marker.data(), substitution.data());
}

void GetVirusType(std::vector<std::string>& types) {
    const auto answer = askService(protocol::GetVirusTypes());
    if (!answer) {
        writeLog(NORV_LOG_ERROR, "GetVirusType", nullptr, 0, "return error!\n");
        return;
    }
    const std::string& list = answer.reply.types;
    for (std::size_t start = 0; start < list.size();) {
        const std::size_t end = std::min(list.find(';', start), list.size());
        types.push_back(list.substr(start, end - start));
        NORV_TRACE("virus_type: %s", types.back().c_str());
        start = end + 1;
    }
}
