#pragma once

#include <string>

/// A text of the service in the console's language. The service writes English: a sentence, or what was tried in its
/// order ("clean failed: the engine cannot clean files; moved to quarantine"). The parts are translated one by one;
/// what the message catalogue does not know, such as the name of a file, stays as it is.
std::string translateServiceText(const std::string& text);
