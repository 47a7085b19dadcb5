#pragma once

#include "service/base/clock.h"

#include <cstdint>
#include <tuple>

namespace keldra {

class ConfigurationStore;
class FolderQuestions;
class LogonGuard;
class PasswordFile;
class Quarantine;
class RealtimeScan;
class ScanEngine;
class ScanJobs;
class Scheduler;
class ServedDocument;
class Service;
class SessionStore;
class Updater;
class VarFolder;

/// Since when the service runs, by which clock.
struct Running {
    const Clock& clock;
    std::int64_t since;
};

/// All that handlers work on. Each is handed those that its parameters name.
using Parts = std::tuple<ConfigurationStore&, FolderQuestions&, LogonGuard&, PasswordFile&, Quarantine&, RealtimeScan&,
                         ScanEngine&, ScanJobs&, Scheduler&, ServedDocument&, Service&, SessionStore&, Updater&,
                         VarFolder&, const Running&>;

}  // namespace keldra
