#pragma once

#include <map>
#include <string>

/// The bytes of a message catalogue (a GNU .mo file in UTF-8) that translates these texts.
std::string messageCatalogue(std::map<std::string, std::string> texts);
