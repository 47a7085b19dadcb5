#pragma once

#include "norv/norv_config.h"

#include <string>

namespace keldra {

/// What differs between two documents, in words: `name: "old" -> "new"; ...`, by the names under which the settings are
/// known elsewhere. Of a secret only that it changed. Long values and long lists are cut. Empty when nothing differs.
std::string settingsDifference(const NORVConfig& before, const NORVConfig& after);

/// One change in that style, with long values cut and passwords in addresses left out.
std::string changeText(const std::string& name, const std::string& before, const std::string& after);

}  // namespace keldra
