#pragma once

#include "norv/words.h"

#include <string>

/// Changes of settings as the service notes them, `name: "old" -> "new"; name: changed; ...`, by the names that the
/// console's pages have for them and with their values as people read them. What is not understood stays as it is.
std::string settingsText(const Words& words, const std::string& changes);
