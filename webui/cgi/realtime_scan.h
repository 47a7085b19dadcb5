#pragma once

#include "norv/norv_config.h"
#include "norv/scan_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

/// The settings page of the real-time scan: shows it, or saves the form and answers. Writes nothing when it is only to
/// be shown and the service does not hand out the settings.
void GetRealTimeScanOption(const NORVConfig& config, const CQSControl& request, bool save);

/// The settings as the service has them. False when it does not hand them out.
bool GetRealtimeScanConfig(NORVRealtimeScanConfig& record);

/// Lays the form over the service's settings and hands them back to be stored. False when either exchange fails.
bool SaveRealtimeScanConfig(const CQSControl& request);

/// Which accesses the form wants scanned. On without a direction means incoming.
void ConstructScanDirection(const CQSControl& request, NORVRealtimeScanConfig& record);

/// Shows the record's settings, with the stamp that a save sends back.
void SetRealTimeScanConfig(CPageWrapper& page, const NORVConfig& config, const NORVRealtimeScanConfig& record);

/// Shows which accesses are scanned, and why none are.
void SetScanDirection(CPageWrapper& page, const NORVRealtimeScanConfig& record);
