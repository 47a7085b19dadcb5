#pragma once

#include "norv/scan_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

// From a submitted scan form: into a settings record, or straight back into the page.

/// Overwrites the settings common to all scans by what the form says. Sizes that are missing, zero or no number, and
/// actions whose two mode flags contradict each other, stay as the record has them.
void ConstructScanConfig(const CQSControl& form, NORVScanConfig& record);

/// Shows the form's choice of files to scan again.
void SetIncludeExt(CPageWrapper& page, const CQSControl& form);

/// Shows the form's actions again, as they came: neither translated nor escaped.
void SetAction(CPageWrapper& page, const CQSControl& form);

/// Shows the form's choice in a select again. `controlName`: the field, counted from 1; `selectName`: the page's
/// variable, counted from 0. Returns 1.
int SetSingleSelect(CPageWrapper& page, const CQSControl& form, const char* controlName, const char* selectName);
