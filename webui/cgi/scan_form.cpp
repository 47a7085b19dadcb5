#include "webui/cgi/scan_form.h"

#include "norv/custom_action.h"
#include "norv/log.h"
#include "webui/cgi/scan_actions.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/utils/form_binding.h"

namespace {

void readFilesToScan(const CQSControl& form, NORVScanConfig& record) {
    const std::string choice = form.getEnv("E1");
    record.includeExtList.clear();
    record.includeHVExtList = false;
    record.zelscan = false;
    if (choice == "ON22") {
        NORV_TRACE("Scan all the file extensions");
    } else if (choice == "ZelscanOn") {
        NORV_TRACE("Zel scan");
        record.zelscan = true;
    } else {
        NORV_TRACE("Custom ext list");
        record.includeHVExtList = !form.getEnv("C3").empty();
        record.includeExtList = form.getEnv("SelectedExt");
        // A choice of no files at all would protect nothing.
        record.zelscan = !record.includeHVExtList && record.includeExtList.empty();
    }
}

void readCompressed(const CQSControl& form, NORVScanConfig& record) {
    record.scanCompressed = !form.getEnv("Scan_config7").empty();
    if (!record.scanCompressed) return;
    NORV_TRACE("Scan Compressed is enabled");
    if (const auto layer = numberParameter<uint32_t>(form, "Layers"); layer != 0) {
        NORV_TRACE("layer=%u", layer);
        record.compressionLayer = layer;
    }
    if (const auto limit = numberParameter<uint32_t>(form, "T1"); limit != 0) {
        NORV_TRACE("limit=%u", limit);
        record.compressFileSizeLimit = limit;
    }
}

CustomActionList readActionList(const CQSControl& form) {
    std::string actions = form.getEnv("CustAction");
    NORV_TRACE("CustAction = %s", actions.c_str());
    UIToConfig(actions);
    NORV_TRACE("After map, CustAction = %s", actions.c_str());
    return CustomActionList(actions);
}

void readActions(const CQSControl& form, NORVScanConfig& record) {
    const int universe = form.getEnv<int>("EnableUniAct");
    const int keen = form.getEnv<int>("EnableKeenAct");
    CustomActionList list = readActionList(form);
    if (universe == 0 && keen == 1) {
        record.customActions.clear();
        record.universeAction.clear();
    } else if (universe == 1 && keen == 0) {
        record.customActions.clear();
        record.universeAction = list.action("Universe", 0, 0).actionString();
    } else if (universe == 0 && keen == 0) {
        list.removeCustomAction("Universe");
        record.customActions = list.toString();
        record.universeAction.clear();
    } else {
        NORV_LOG(NORV_LOG_REFUSED, "Reached unexpected condition");
    }
}

/// The place of the form's choice among the page's radio buttons.
int filesToScanIndex(const std::string& choice) {
    if (choice == "ON22") return 0;
    return choice == "ON23" ? 1 : 2;
}

}  // namespace

void ConstructScanConfig(const CQSControl& form, NORVScanConfig& record) {
    readFilesToScan(form, record);
    readCompressed(form, record);
    record.backupBeforeClean = form.getEnv("Scan_BackupFilesBeforeClean") == "ON";
    readActions(form, record);
}

void SetIncludeExt(CPageWrapper& page, const CQSControl& form) {
    const int iIndex = filesToScanIndex(form.getEnv("E1"));
    NORV_TRACE("iIndex=%d", iIndex);
    AddOneItem(page, "ScanOptionIncludeExtList", iIndex);
    AssignOneItem(page, form, "SelectedExt", "ScanOptionIncludeExtListString");
}

void SetAction(CPageWrapper& page, const CQSControl& form) {
    const std::string custAction = form.getEnv("CustAction");
    NORV_TRACE("CustAction = %s\n", custAction.c_str());
    page.addDStringItem(ACTION_MARKER,
                        actionInputs(form.getEnv("EnableKeenAct"), form.getEnv("EnableUniAct"), custAction));
}

int SetSingleSelect(CPageWrapper& page, const CQSControl& form, const char* controlName, const char* selectName) {
    NORV_TRACE("ENTER controlName=%s sSelectName=%s", controlName, selectName);
    NORV_TRACE("value of [%s]: %s", controlName, form.getEnv(controlName).c_str());
    substituteSelect(page, selectName, form.getEnv<int>(controlName));
    return 1;
}
