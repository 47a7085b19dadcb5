#pragma once

#include "service/base/child_process.h"

#include <string_view>

namespace keldra {

// What an update may end with. The console calls an update complete whose text holds the word "current", so no text of
// a failure may.
inline constexpr const char* INSTALLED = "New components have been installed.";
inline constexpr const char* UP_TO_DATE = "All components are current.";
inline constexpr const char* ENGINE_ONLY = "The scan engine is kept current by the updates of the operating system.";
inline constexpr const char* NOTHING_SELECTED = "No component was selected for the update.";
inline constexpr const char* NO_SOURCE = "No update source is configured.";
inline constexpr const char* BAD_SETTINGS = "The update settings cannot be used, see the log of the service.";
inline constexpr const char* UNREACHABLE = "The update source cannot be reached or lacks the databases.";
inline constexpr const char* UNREADABLE = "A file or URL of the update source cannot be read.";
inline constexpr const char* REFUSED = "The update source refuses to answer for now, try again later.";
inline constexpr const char* DAMAGED = "The new database is damaged; the old one stays in use.";
inline constexpr const char* NOT_LOADED = "The new database cannot be loaded; the old one stays in use.";
inline constexpr const char* NOT_STORED = "The databases cannot be stored, see the log of the service.";
inline constexpr const char* NOT_READABLE = "The folder of the databases cannot be read, see the log of the service.";
inline constexpr const char* CONFINED = "AppArmor keeps the update program from its files, see the log of the service.";
inline constexpr const char* NOT_FOUND = "The update program cannot be started, see the log of the service.";
inline constexpr const char* TOO_LONG = "The update took too long and was ended.";
inline constexpr const char* INTERRUPTED = "The update was interrupted because the service ended.";
inline constexpr const char* FAILED = "The update has failed, see the log of the service.";

/// Watches what freshclam prints for the reason of a failure.
class FailureWatch {
public:
    void line(std::string_view text);
    /// The text for how it ended, which was no success.
    const char* messageOf(const ChildResult& result) const;

private:
    bool refused_ = false;  ///< something could not be opened, made or written
};

}  // namespace keldra
