#pragma once

#include "norv/norv_config.h"
#include "norv/scan_config.h"
#include "webui/cgi/page_wrapper.h"

#include <string>

// From a settings record to the page.

/// Shows the settings common to all scans.
void SetScanConfigVars(CPageWrapper& page, const NORVScanConfig& record);

/// Shows a record's actions: one list entry for each virus type that the service knows, behind the one for all types.
void GetKeenAction(CPageWrapper& page, const NORVScanConfig& record);
/// The same from the configuration. `sActionName1`: name of the list per virus type; `sActionName2`: name of the action
/// for all types. What is not there counts as empty.
void GetKeenAction(CPageWrapper& page, const NORVConfig& config, const char* sActionName1, const char* sActionName2);

/// Adds the hidden inputs with the actions, in form digits. Returns 1.
int SetKeenActionString(CPageWrapper& page, std::string enableKeenAct, std::string enableUniAct,
                        std::string customizedAction, std::string allTypesAction);

/// Appends to `out` one entry for each virus type that the service knows, joined by ",": the first of the entries in
/// `strVal` that begins with the type's name, else the type's default. `strVal` is cut up at its commas.
void CustomizedActionChecker(char* strVal, std::string& out);

/// Shows a configuration number, counted from 1, in a select counted from 0. Returns 1, or 0 and adds nothing when it
/// is not there.
int GetSingleSelect(CPageWrapper& page, const NORVConfig& config, const char* sXMLGroupName, const char* sXMLName,
                    const char* sSelectName);
