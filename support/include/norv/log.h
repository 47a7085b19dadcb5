#pragma once

#include <cstdint>
#include <string>

/// Severity of a log line. Smaller is graver; a line is written when its severity is at most the level given to
/// `initLog`. Any number is a legal value.
enum NORV_LOG_SEVERITY : int32_t {
    NORV_LOG_REFUSED = 1,  ///< refused access and failed exchanges
    NORV_LOG_ERROR = 2,    ///< errors
    NORV_LOG_WARNING = 3,  ///< a session that is not valid, and what deserves a second look
    NORV_LOG_INFO = 4,     ///< the service's own milestones
    NORV_LOG_TRACE = 5,    ///< trace
};

/// Opens the log. Until then lines are kept (a bounded number) and written, or dropped, once the level is known.
/// `program`: the name in each line, only its base name is used. `facility`: the syslog facility (152 is LOG_LOCAL3).
/// Where the lines go is told by KELDRA_LOG: "syslog" (also when unset), "stderr", or a file to append to (made 0600).
void initLog(const std::string& program, int facility, NORV_LOG_SEVERITY level);

/// Changes the level of an open log.
void setLogLevel(NORV_LOG_SEVERITY level);

/// Writes one record, printf-style. `function` and `file` may be null or empty: then no place is written. One trailing
/// newline of the text is dropped; control bytes and invalid UTF-8 are written escaped, so one record is one line.
/// Safe to call from several threads.
[[gnu::format(printf, 5, 6)]] void writeLog(int32_t severity, const char* function, const char* file, int line,
                                            const char* format, ...);

/// A line at the trace level with the place it stands in.
#define NORV_TRACE(...) writeLog(NORV_LOG_TRACE, __PRETTY_FUNCTION__, __FILE__, __LINE__, __VA_ARGS__)
/// A line at any severity without a place.
#define NORV_LOG(severity, ...) writeLog((severity), nullptr, nullptr, 0, __VA_ARGS__)
