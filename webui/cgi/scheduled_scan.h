#pragma once

#include "norv/norv_config.h"
#include "norv/scan_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

/// The settings page of the scheduled scan. Writes nothing when the service does not hand out the settings.
void ShowScheduledScanConfig(const NORVConfig& config);

/// Saves the form and answers. Asks first when the settings changed since the form was shown; writes nothing when the
/// service does not hand them out then.
void SaveScheduledScanConfig(const NORVConfig& config, const CQSControl& form);

/// Lays the form over the service's settings and hands them back to be stored. False when either exchange fails.
bool SaveScheduledScanConfig(const CQSControl& form);

/// The settings as the service has them. False when it does not hand them out.
bool GetScheduledScanConfig(NORVScheduledScanConfig& record);

/// Overwrites the record's settings by what the form says. Switched off, time and days stay as the record has them.
void ConstructScheduledScanConfig(const CQSControl& form, NORVScheduledScanConfig& record);

/// Shows the record's settings.
void SetScheduledScanConfig(CPageWrapper& page, const NORVScheduledScanConfig& record);
