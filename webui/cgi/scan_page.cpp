#include "webui/cgi/scan_page.h"

#include "norv/log.h"
#include "webui/cgi/scan_actions.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/utils/form_binding.h"
#include "webui/cgi/utils/response_pages.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

/// The group of the configuration that the settings named by a page alone stand in.
constexpr char GENERAL_CATEGORY[] = "Configuration";

/// The place of the record's choice of files among the page's radio buttons. The default list alone counts as all
/// files; pages rely on it.
int filesToScanIndex(const NORVScanConfig& record) {
    if (record.zelscan) return 2;
    return record.includeExtList.empty() ? 0 : 1;
}

std::string formDigits(std::string actions) {
    ConfigToUI(actions);
    return actions;
}

std::string defaultActionList() {
    std::vector<std::string> types;
    GetVirusType(types);
    std::string list;
    for (const std::string& type : types) {
        if (&type != &types.front()) list += ',';
        list += defaultAction(type);
    }
    return list;
}

/// The entries of a list without the empty ones; `list` is cut up.
std::vector<std::string> splitInPlace(char* list) {
    std::vector<std::string> entries;
    char* rest = nullptr;
    for (char* entry = strtok_r(list, ",", &rest); entry; entry = strtok_r(nullptr, ",", &rest)) {
        entries.emplace_back(entry);
    }
    return entries;
}

std::string actionOf(const std::string& type, const std::vector<std::string>& entries) {
    NORV_TRACE("pattern_virus_types = %s\n", type.c_str());
    const auto found =
        std::find_if(entries.begin(), entries.end(), [&](const std::string& entry) { return entry.starts_with(type); });
    if (found == entries.end()) return defaultAction(type);
    NORV_TRACE("find %s in %s\n", type.c_str(), found->c_str());
    return *found;
}

template <typename T>
bool readSetting(const NORVConfig& config, const char* category, const char* name, T& value) {
    if (getConfigValue(config, category, name, value)) return true;
    // That it is missing has been told already.
    if (hasConfigValue(config, category, name)) NORV_LOG(NORV_LOG_REFUSED, "Failed to get config");
    return false;
}

std::string readActions(const NORVConfig& config, const char* name) {
    std::string actions;
    if (readSetting(config, GENERAL_CATEGORY, name, actions)) NORV_TRACE("%s = %s", name, actions.c_str());
    return actions;
}

}  // namespace

void SetScanConfigVars(CPageWrapper& page, const NORVScanConfig& record) {
    NORV_TRACE("ENTER");
    AddOneItem(page, "ScanOptionIncludeExtList", filesToScanIndex(record));
    AddOneItem(page, "ScanOptionIncludeExtListString", record.includeExtList);
    GetKeenAction(page, record);
    GetCheckbox(page, "bScanOptionIncludeHVExtList", record.includeHVExtList ? 1 : 0);
    GetCheckbox(page, "bScanOptionBackupFilesBeforeClean", record.backupBeforeClean ? 1 : 0);
    GetCheckbox(page, "bScanOptionScanCompressed", record.scanCompressed ? 1 : 0);
    substituteNumber(page, "iScanOptionCompressionLayer", zeroBased(record.compressionLayer));
    substituteQuoted(page, "sScanOptionCompressFileSize", record.compressFileSizeLimit);
}

void GetKeenAction(CPageWrapper& page, const NORVScanConfig& record) {
    if (!record.customActions.empty()) {
        std::string stored = formDigits(record.customActions);
        std::string customized;
        CustomizedActionChecker(stored.data(), customized);
        SetKeenActionString(page, "0", "0", customized, DEFAULT_UNIVERSE_ACTION);
        return;
    }
    const std::string defaults = defaultActionList();
    if (record.universeAction.empty()) {
        SetKeenActionString(page, "1", "0", defaults, DEFAULT_UNIVERSE_ACTION);
    } else {
        SetKeenActionString(page, "0", "1", defaults, "Universe-" + formDigits(record.universeAction));
    }
}

void GetKeenAction(CPageWrapper& page, const NORVConfig& config, const char* sActionName1, const char* sActionName2) {
    NORV_TRACE("ENTER sActionName1=%s sActionName2=%s", sActionName1, sActionName2);
    NORVScanConfig record;
    record.customActions = readActions(config, sActionName1);
    record.universeAction = readActions(config, sActionName2);
    GetKeenAction(page, record);
}

int SetKeenActionString(CPageWrapper& page, std::string enableKeenAct, std::string enableUniAct,
                        std::string customizedAction, std::string allTypesAction) {
    NORV_TRACE("ENTER EnableKeenAct=%s EnableUniAct=%s CustomizedAction=%s AllTypesAction=%s", enableKeenAct.c_str(),
               enableUniAct.c_str(), customizedAction.c_str(), allTypesAction.c_str());
    for (std::string* value : {&enableKeenAct, &enableUniAct, &customizedAction, &allTypesAction}) {
        processSpecialChars(*value);
    }
    const std::string inputs = actionInputs(enableKeenAct, enableUniAct, allTypesAction + "," + customizedAction);
    page.addDStringItem(ACTION_MARKER, inputs);
    NORV_TRACE("add string: %s", inputs.c_str());
    return 1;
}

void CustomizedActionChecker(char* strVal, std::string& out) {
    NORV_TRACE("ENTER strVal=%s", strVal);
    std::vector<std::string> types;
    GetVirusType(types);
    const std::vector<std::string> entries = splitInPlace(strVal);
    for (const std::string& type : types) {
        if (&type != &types.front()) out += ',';
        out += actionOf(type, entries);
    }
    NORV_TRACE("CustomizedAction = %s", out.c_str());
}

int GetSingleSelect(CPageWrapper& page, const NORVConfig& config, const char* sXMLGroupName, const char* sXMLName,
                    const char* sSelectName) {
    int32_t value = 0;
    if (!readSetting(config, sXMLGroupName, sXMLName, value)) return 0;
    substituteSelect(page, sSelectName, value);
    return 1;
}
