#pragma once

#include "service/engine/scan_result.h"
#include "service/engine/scanner_team.h"
#include "service/engine/scanner_wire.h"

#include <chrono>
#include <stop_token>
#include <string>

namespace keldra {

/// What became of one file at one worker.
struct ScanAttempt {
    enum class Kind { ANSWERED, ENDED, OVERDUE, STOPPED, NONSENSE };

    Kind kind = Kind::ENDED;
    ScanResult result = {};
};

/// A failure that is to be blamed on the file. `reason`: in English.
ScanResult lastingFailure(std::string reason);

/// Hands a file to a worker and waits for what it says, up to `limit` or until a stop is asked for. A worker that did
/// not answer, or not as it should, has ended or is being ended: it must not be used again. `fd`: where reading begins
/// does not matter.
ScanAttempt scanAt(ScannerWorker& worker, int fd, const wire::ScanOrder& order, std::chrono::milliseconds limit,
                   const std::stop_token& stop);

}  // namespace keldra
