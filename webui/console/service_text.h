#pragma once

#include "norv/service_text.h"

#include <string>

/// The texts of the programs and the service in the console's language.
const Words& consoleWords();

/// A text of the service in the console's language.
std::string translateServiceText(const std::string& text);
