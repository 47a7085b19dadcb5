#pragma once

#include <string>

/// Replaces a text by its encrypted form. False, with the text untouched, when that fails.
bool encrypt_string(std::string& text);
