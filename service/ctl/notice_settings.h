#pragma once

#include "norv/json_types.h"
#include "norv/protocol/notices.h"
#include "service/ctl/fault.h"

#include <string>

namespace keldra {

/// The name of the notices' settings among the groups.
inline constexpr const char* NOTICES_GROUP = "notices";

/// Adds the notices' settings to an object of groups; `secrets`: with the secrets. Returns why not, or nothing.
Fault addNotices(JsonDocument& settings, bool secrets);
/// Lays fields of that form over the stored settings. Returns what is wrong with them, or nothing.
Fault takeNotices(const JsonValue& fields, protocol::SetNotices& wanted);
/// Stores them. Returns what is wrong, or nothing.
Fault storeNotices(const protocol::SetNotices& wanted);

}  // namespace keldra
