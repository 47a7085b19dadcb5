#pragma once

#include "norv/norv_config.h"
#include "norv/scan_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

#include <string>

/// The settings page of the manual scan: shows it, or saves the form and answers. `start_scan`: the page that answers
/// goes on to start a scan. Writes nothing when the service does not hand out the settings that are to be shown.
void GetManualScanOption(const NORVConfig& config, const CQSControl& request, bool save, bool start_scan);

/// The settings as the service has them. False when it does not hand them out.
bool GetManualScanConfig(NORVManualScanConfig& record);

/// Lays the form over the service's settings and hands them back to be stored. False when either exchange fails.
bool SaveManualScanConfig(const CQSControl& request);

/// Shows the record's settings.
void SetManualScanConfig(CPageWrapper& page, const NORVManualScanConfig& record);

/// Starts a scan. Returns its id, empty when the service does not start one.
std::string StartManualScan();

/// Stops a scan. False when the service does not.
bool StopManualScan(const std::string& requestID);

/// The page that follows a scan.
void GetManualScanProgress(const NORVConfig& config, const std::string& requestID);

/// Adds the item `name` with a decimal value. Returns 1.
int ReplaceOneItemWithInteger(CPageWrapper& page, const char* name, int value);
