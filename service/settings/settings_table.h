#pragma once

#include "norv/norv_config.h"
#include "norv/protocol/service_settings.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

/// What a setting's text may be.
enum class SettingKind : std::uint8_t {
    NUMBER,   ///< a whole number from `least` to `most`
    SWITCH,   ///< "1" or "0"
    CHOICE,   ///< one of `choices`
    TEXT,     ///< one line
    SECRET,   ///< one line that is never given out, only whether there is one
    FOLDERS,  ///< a path list of absolute paths
    SOURCES,  ///< a path list of absolute paths and http, https or file addresses
    TIME      ///< "hh:mm", or empty
};

/// A setting that no form of the scan pages carries: what it is called, where it stands in the configuration, what it
/// may be. One table serves the console's pages and the command line.
struct Setting {
    const char* name;      ///< "realtime.time_limit": page and what it is, lower case
    const char* category;  ///< of the configuration document
    const char* key;
    SettingKind kind;
    const char* fallback;  ///< its value as long as the document has none
    std::int64_t least = 0;
    std::int64_t most = 0;
    const char* choices = "";  ///< separated by "|"
    const char* unit = "";     ///< English, plural; empty for a count
    const char* about = "";    ///< one English sentence
};

/// All of them, those of a page together.
std::span<const Setting> settingsTable();
/// Nothing when there is no such setting.
const Setting* findSetting(std::string_view name);

/// Its value in the document, else its fallback. Of a secret: "1" when there is one, else empty.
std::string settingValue(const NORVConfig& config, const Setting& setting);

/// What is wrong with a value, in English and without the setting's name; empty when nothing is. Brings the value into
/// the form in which it is stored.
std::string checkSetting(const Setting& setting, std::string& value);

/// Values by name. Of `expected` only what is named in `wanted` counts.
struct SettingsChange {
    std::map<std::string, std::string> wanted;
    /// What whoever asks believes to be stored now; a setting that somebody else changed meanwhile is not overwritten.
    std::map<std::string, std::string> expected;
};

/// Why nothing was changed: the setting's name and what is wrong with it, in English.
struct SettingsFault {
    std::string setting;
    std::string text;
};

/// Puts all values into the document, or none of them.
std::optional<SettingsFault> changeSettings(NORVConfig& config, const SettingsChange& change);

/// All settings with their values, for those who show them.
std::vector<protocol::ServiceSetting> describeSettings(const NORVConfig& config);

/// {"name": "value", ...} as values by name; nothing when the text is anything else.
std::optional<std::map<std::string, std::string>> settingsFromText(const std::string& text);

}  // namespace keldra
