#pragma once

#include "norv/norv_config.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/qs_control.h"

#include <cstdint>
#include <string>
#include <vector>

// What the settings pages have in common.

/// The reason given when the service does not do what a settings page asks.
inline constexpr char SERVICE_NOT_RESPONDING[] =
    "Keldra service is not responding. Please restart Keldra and try again.";

/// The title of the page after a save.
inline constexpr char SETTINGS_SAVED[] = "Configuration changes have been successfully saved.";

/// How a save ended, and so which page follows: what `SaveCommandComplete` takes for `iSettingMode`.
enum SettingMode : int32_t {
    SAVE_OK = 1,
    SAVE_FAILED = 0,
    SAVE_SHOW_SETTINGS = -1,   ///< nothing was saved; show the settings
    SAVE_ANSWERED = -2,        ///< the response is written already
    SAVE_WITHOUT_BACKUP = -3,  ///< saved, but the configuration could not be backed up
};

/// Writes the page that follows a save: success, failure, full disk, nothing, or, for any outcome without a page of its
/// own, the template `sNormalPage` with the items that `page` has.
void SaveCommandComplete(CPageWrapper& page, int iSettingMode, const char* sHeader, const char* sFailTitle,
                         const char* sFailReason, const char* sBackURL, const char* sNormalPage);

/// The texts and addresses of one settings page.
struct SettingsPage {
    const char* header;
    const char* failTitle;
    const char* backURL;
    const char* pageTemplate;
};

/// The same for a settings page that blames a failure on the service.
void SaveCommandComplete(CPageWrapper& page, int iSettingMode, const SettingsPage& settings);
/// The same without a line in the log.
void writeSaveAnswer(CPageWrapper& page, int iSettingMode, const SettingsPage& settings);

/// How the stamp that a form was built from relates to the configuration's when the form may be saved unasked.
enum class SaveUnasked { WHEN_EQUAL, WHEN_NOT_OLDER };

/// Whether somebody else may have changed the settings since the form was shown and the user has not yet agreed to
/// overwrite that. A form without a stamp counts as built from stamp 0.
bool mustAskToOverwrite(const NORVConfig& config, const CQSControl& form, SaveUnasked rule);

/// Makes the page ask whether to overwrite; its script submits the form once more when the user agrees.
void addOverwriteQuestion(CPageWrapper& page);

/// Adds the configuration's stamp, which the form sends back when it is saved.
void addConfigStamp(CPageWrapper& page, const NORVConfig& config);

/// A request parameter as a number by stream extraction: leading blanks are skipped, reading stops at the first
/// character that does not belong. 0 when it is missing, does not begin with a number, or is too large for a Number.
template <typename Number>
Number numberParameter(const CQSControl& form, const std::string& name) {
    Number number = 0;
    readNumber(form.getEnv(name), number);
    return number;
}

/// `name=0` in the template becomes `name=value`. Not logged.
void substituteNumber(CPageWrapper& page, const std::string& name, int32_t value);

/// `name=""` in the template becomes `name="value"`. Neither escaped nor logged.
template <typename T>
void substituteQuoted(CPageWrapper& page, const std::string& name, const T& value) {
    page.addDStringItem(name + "=\"\"", name + "=\"" + textForm(value) + '"');
}

/// The place in a page's select of what forms and records count from 1; 0 gives -1.
constexpr int32_t zeroBased(uint32_t oneBased) { return static_cast<int32_t>(oneBased - 1U); }

/// `selectName=0` in the template becomes `selectName=` and the 0-based `oneBased`, or `selectName=""` when that is 0.
void substituteSelect(CPageWrapper& page, const char* selectName, int oneBased);

/// Appends the names of the virus types that the service knows, in its order; nothing when it does not answer.
void GetVirusType(std::vector<std::string>& types);
