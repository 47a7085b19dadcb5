#pragma once

#include "webui/cgi/string_mui.h"

#include <string>
#include <string_view>

/// Puts `value` wherever `name` stands in the text, from left to right, never inside a value just put in. An empty name
/// stands nowhere.
void replaceAll(std::string& text, std::string_view name, std::string_view value);

/// The text with the table's markers replaced. After a replacement the search goes on where the marker would have
/// ended, so markers inside a longer value are replaced too.
std::string withTexts(std::string_view text, const CStringMUI& strings);

/// The text in the console's language, by the message catalogues; itself where they do not know it.
std::string translated(const std::string& text);
