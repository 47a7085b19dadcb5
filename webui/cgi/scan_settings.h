#pragma once

#include "norv/norv_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"
#include "webui/cgi/scan_common.h"
#include "webui/cgi/service_message.h"

/// A scan's settings page: what is its own of showing, asking and saving.
template <typename Record>
struct ScanSettings {
    SettingsPage page;
    SaveUnasked unasked;
    /// Lays the form over a record.
    void (*readForm)(const CQSControl& form, Record& record);
    /// Shows a record's settings, with the stamp that a save sends back.
    void (*show)(CPageWrapper& page, const NORVConfig& config, const Record& record);
};

/// Fills the page with the settings as the service has them. False when it does not hand them out; callers then mostly
/// write nothing, since others rely on it.
template <typename Record>
bool fillFromService(CPageWrapper& page, const NORVConfig& config, const ScanSettings<Record>& settings) {
    Record record;
    if (!fetchRecord(record)) return false;
    settings.show(page, config, record);
    return true;
}

/// Fills the page with what the form says and has it ask whether to overwrite. False as above.
template <typename Record>
bool fillFromForm(CPageWrapper& page, const NORVConfig& config, const CQSControl& form,
                  const ScanSettings<Record>& settings) {
    Record record;
    if (!fetchRecord(record)) return false;
    settings.readForm(form, record);
    addOverwriteQuestion(page);
    settings.show(page, config, record);
    return true;
}

/// Lays the form over the service's settings and hands them back to be stored. False when either exchange fails.
template <typename Record>
bool saveForm(const CQSControl& form, const ScanSettings<Record>& settings) {
    Record record;
    if (!fetchRecord(record)) return false;
    settings.readForm(form, record);
    return static_cast<bool>(sendRecord(record));
}
