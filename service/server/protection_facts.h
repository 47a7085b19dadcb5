#pragma once

#include "service/engine/scan_engine.h"
#include "service/realtime/realtime_scan.h"
#include "service/scanning/scan_status.h"
#include "service/server/slow_facts.h"
#include "service/verdict/protection.h"

#include <vector>

namespace keldra {

class Clock;
class ConfigurationStore;
class EventJournal;
class Happenings;
class Quarantine;
class ScanJobs;
class SessionStore;

/// The parts that are asked how the server is.
struct Witnesses {
    const Clock& clock;
    ConfigurationStore& configuration;
    SessionStore& sessions;
    EventJournal& events;
    Happenings& happenings;
    Quarantine& quarantine;
    ScanEngine& engine;
    ScanJobs& scans;
    RealtimeScan& realtime;
    SlowFactsWatch& disks;
};

/// What several of them said at one moment, so that a verdict and the figures beside it never disagree.
struct Testimony {
    EngineState engine;
    RealtimeState realtime;
    SlowFacts disks;
    std::vector<ScanStatus> scans;  ///< newest first
};

/// Answers from memory; what disks tell is at most some seconds old.
Testimony hear(const Witnesses& witnesses);

/// The verdict on this server.
Protection protectionOf(const Witnesses& witnesses, const Testimony& heard);

}  // namespace keldra
