#pragma once

#include "norv/log.h"
#include "tests/harness/log_file.h"

#include <functional>
#include <vector>

/// What `before` and `after` log when the log is opened at `level` between them, in a process of their own.
std::vector<LogLine> capturedLog(NORV_LOG_SEVERITY level, const std::function<void()>& before,
                                 const std::function<void()>& after);

/// The same with nothing before.
inline std::vector<LogLine> capturedLog(NORV_LOG_SEVERITY level, const std::function<void()>& after) {
    return capturedLog(
        level, [] {}, after);
}
