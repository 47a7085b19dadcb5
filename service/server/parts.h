#pragma once

#include "service/base/clock.h"

#include <cstdint>
#include <tuple>

namespace keldra {

class ClientServer;
class ConfigurationStore;
class EventJournal;
class FolderQuestions;
class LogonGuard;
class Notices;
class PasswordFile;
class PendingLogons;
class Quarantine;
class RealtimeScan;
class ScanJobs;
class ScanMetrics;
class Scheduler;
class SecondFactor;
class ServedDocument;
class SessionStore;
class ShareUsers;
class Updater;
class VarFolder;
struct Witnesses;

/// Since when the service runs, by which clock.
struct Running {
    const Clock& clock;
    std::int64_t since;
};

/// All that handlers work on. Each is handed those that its parameters name.
using Parts = std::tuple<ConfigurationStore&, EventJournal&, FolderQuestions&, LogonGuard&, Notices&, PasswordFile&,
                         PendingLogons&, Quarantine&, RealtimeScan&, ScanJobs&, Scheduler&, SecondFactor&,
                         ServedDocument&, SessionStore&, ShareUsers&, Updater&, VarFolder&, const ClientServer&,
                         const Running&, const ScanMetrics&, const Witnesses&>;

}  // namespace keldra
