#pragma once

#include "norv/json_types.h"
#include "service/ctl/fault.h"

#include <string>
#include <vector>

namespace keldra {

/// A group of settings as the service keeps it, by the name under which keldractl shows it.
struct SettingsGroup {
    const char* name;       ///< "manual_scan"
    int command;            ///< that gets and sets it
    const char* parameter;  ///< which carries its text
    const char* record;     ///< the record's type name in that text
    /// Fields that the service fills itself; shown and exported nowhere.
    std::vector<const char*> states;
};

const std::vector<SettingsGroup>& settingsGroups();

/// Fetches all settings as one object of groups with lower-case names; `secrets`: also passwords and tokens. Returns
/// why not, or nothing.
Fault fetchSettings(JsonDocument& settings, bool secrets = false);

/// What became of settings to store.
struct StoreResult {
    Fault fault;                    ///< of the first group that was refused; what comes after it is not stored
    std::vector<std::string> done;  ///< names of the groups that are stored
};

/// Stores the fields of an object of groups, as `fetchSettings` gives it; what it lacks stays as it is. Nothing is
/// stored when it names a group or a field that does not exist, or a value is of the wrong type.
StoreResult storeSettings(const JsonValue& settings);

/// Reads "group.field"; false when it has another form.
bool splitSettingName(const std::string& name, std::string& group, std::string& field);

}  // namespace keldra
