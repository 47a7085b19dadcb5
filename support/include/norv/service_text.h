#pragma once

#include "norv/words.h"

#include <cstdint>
#include <string>
#include <string_view>

/// A text of the service in another language. The service writes English: a sentence, or what was tried in its order
/// ("clean failed: the engine cannot clean files; moved to quarantine"). The parts are translated one by one; what the
/// language does not know, such as the name of a file, stays as it is.
std::string serviceText(const Words& words, const std::string& text);

// What events carry as codes, in words. An unknown code stays as it is.
std::string eventKindText(const Words& words, const std::string& kind);
std::string eventSeverityText(const Words& words, const std::string& severity);
/// `task`: of an event of that kind. Empty where it says nothing: the number of a scan, what asked for an update.
std::string eventTaskText(const Words& words, const std::string& kind, const std::string& task);
/// The remark of an event of that kind.
std::string eventDetailText(const Words& words, const std::string& kind, const std::string& detail);

/// What stands behind a reason of the verdict, such as a path or why something failed. `reason`: its code.
std::string reasonDetailText(const Words& words, std::string_view reason, const std::string& detail);
/// A number with a unit that reasons of the verdict have ("days", "files", "folders", "mib", "mib_free"); empty for a
/// number without one.
std::string countText(const Words& words, std::uint64_t count, std::string_view unit);
