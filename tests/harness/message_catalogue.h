#pragma once

#include <map>
#include <string>

/// The bytes of a message catalogue (a GNU .mo file in UTF-8) that translates these texts, which hold no quotes,
/// backslashes or line ends.
std::string messageCatalogue(const std::map<std::string, std::string>& texts);
