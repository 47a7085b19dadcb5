#pragma once

#include "norv/au_config.h"
#include "norv/norv_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"
#include "webui/cgi/scan_common.h"

#include <cstdint>
#include <string>

/// Whose selection of components a page shows.
enum UPDATE_TYPE : int32_t { UPDATE_MANUAL = 0, UPDATE_SCHEDULED = 1 };

/// How the service took an update or its settings: the same codes as for other settings.
enum SET_UPDATE_OPTION_RESULT : int32_t {
    SET_UPDATE_OK = SAVE_OK,
    SET_UPDATE_FAILED = SAVE_FAILED,
    SET_UPDATE_DISK_FULL = SAVE_WITHOUT_BACKUP,
};

/// Starts an update of the components that the form names. The page says nothing of the outcome: the browser asks
/// `GetUpdateProgress` with the same id.
void RunManualUpdate(const NORVConfig& config, const CQSControl& request);

/// Asks the service for an update. `requestId`: the browser's name for it. When the service refuses, the progress file
/// of that name says so.
SET_UPDATE_OPTION_RESULT ExecuteManualUpdate(const NORVConfig& config, const NORVManualAUConfig& update,
                                             const std::string& requestId);

/// Whether a text may name an update: digits and underscores only, at least one.
bool isValidRequestID(const std::string& requestId);

/// The page that follows an update. Returns 1.
int GetUpdateProgress(const NORVConfig& config, const std::string& requestId);

/// Shows which versions are installed since when, and which components are selected.
void FillUpdateInformation(CPageWrapper& page, const NORVAUConfig& au, UPDATE_TYPE type);

/// The settings page of the scheduled update: shows it, or saves the form and answers. Returns 1.
int GetScheduledUpdateOption(const NORVConfig& config, const CQSControl& request, bool save);

/// Lays the form over the service's settings and hands them back to be stored.
SET_UPDATE_OPTION_RESULT SaveScheduledUpdateConfig(const CQSControl& request);
