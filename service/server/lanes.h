#pragma once

#include "service/server/work_lane.h"

#include <array>
#include <chrono>

namespace keldra {

/// The lanes on which the service answers what cannot be answered at once, one for each sort of work that must not hold
/// up another.
struct Lanes {
    /// What reads and writes the service's own files; replaced, should one of them hang, but never told to be late.
    WorkLane general{{.threads = 4, .waiting = 1024, .patience = std::chrono::seconds(8), .hanging = 16}};
    /// Settings, which wait for each other's syncing.
    WorkLane saving{{.threads = 2, .waiting = 64, .patience = std::chrono::seconds(8), .hanging = 16}};
    /// What opens folders of the shares, whose file systems may not answer.
    WorkLane folders{{.threads = 3, .waiting = 64, .patience = std::chrono::seconds(7), .hanging = 16}};
    /// Log-ons: hashes are slow on purpose.
    WorkLane logOns{{.threads = 4, .waiting = 64}};

    std::array<WorkLane*, 4> all() { return {&general, &saving, &folders, &logOns}; }
};

}  // namespace keldra
