#pragma once

#include "service/access/logon_guard.h"
#include "service/access/session_store.h"
#include "service/base/clock.h"
#include "service/base/files.h"
#include "service/clients/client_server.h"
#include "service/engine/scan_engine.h"
#include "service/events/event_journal.h"
#include "service/notices/notices.h"
#include "service/quarantine/actions.h"
#include "service/quarantine/quarantine.h"
#include "service/realtime/realtime_scan.h"
#include "service/scanning/scan_jobs.h"
#include "service/schedules/scheduler.h"
#include "service/server/happenings.h"
#include "service/server/message_server.h"
#include "service/server/slow_facts.h"
#include "service/server/watchdog.h"
#include "service/settings/configuration_store.h"
#include "service/settings/served_document.h"
#include "service/updates/updater.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <asio/thread_pool.hpp>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// What the command line of keldrad says.
struct ServiceOptions {
    std::filesystem::path config;
    std::filesystem::path state;
    std::filesystem::path socket;
    std::filesystem::path var;            ///< served as VarPath when the document names none
    std::vector<std::string> signatures;  ///< folders of databases that are used beside the updated ones
    std::string scanner;                  ///< program that scans; empty: keldra-scanner beside this one
    std::string scanUser;                 ///< whom it runs as where that can be chosen; empty: keldra-scan or nobody
    std::string freshclam = "/usr/bin/freshclam";
    std::string databaseOwner;  ///< user whom freshclam runs as when started by root; empty: our own
    ServerAccess access;
    ServerLimits serverLimits;
    SessionLimits sessionLimits;
};

class Service;

/// What answers the requests of the service's clients.
struct Answering {
    IPCMessage (*answer)(Service& service, const IPCMessage& request);
    bool (*atOnce)(const IPCMessage& request);  ///< quick enough for the thread that all connections share
};

/// The service: owns all parts and hands them to the handlers.
class Service {
public:
    Service(ServiceOptions options, Answering answering, const Clock& clock = systemClock());
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Takes the state folder and the socket and reads what is stored. False, with one sentence in `error`, when the
    /// service cannot run.
    bool open(std::string& error);
    /// Answers requests until SIGTERM or SIGINT; SIGHUP reads the configuration and the signatures again.
    void run();

    const ServiceOptions& options() const { return options_; }
    const Clock& clock() const { return clock_; }
    ConfigurationStore& configuration() { return configuration_; }
    ServedDocument& servedDocument() { return servedDocument_; }
    SessionStore& sessions() { return sessions_; }
    LogonGuard& logonGuard() { return logonGuard_; }
    Quarantine& quarantine() { return quarantine_; }
    ScanEngine& engine() { return *engine_; }
    ScanJobs& scans() { return *scans_; }
    Scheduler& scheduler() { return *scheduler_; }
    Updater& updater() { return *updater_; }
    RealtimeScan& realtime() { return *realtime_; }
    ClientServer& clients() { return *clients_; }
    EventJournal& events() { return *events_; }
    Notices& notices() { return *notices_; }
    Happenings& happenings() { return *happenings_; }
    SlowFactsWatch& slowFacts() { return *slowFacts_; }
    std::filesystem::path passwordFile() const { return options_.state / "password"; }
    std::int64_t startedAt() const { return startedAt_; }

    /// The folder that is shared with the console, never empty.
    std::string varPath() const;

private:
    std::vector<std::string> ownFolders() const;
    bool lockState(std::string& error);
    bool makeFolders(std::string& error) const;
    void removeLeftovers() const;
    void makeParts();
    void makeJournal();
    void makeNotices();
    NoticeTexts noticeTexts();
    void makeScans();
    SlowQuestions slowQuestions();
    ClientHooks clientHooks();
    void loadSignatures();
    void prepareVar();
    bool startScheduledScan();
    bool startScheduledUpdate();
    void signaturesChanged();
    void configurationChanged();
    void applyGuarded() noexcept;
    void awaitSignal();
    void reload();
    void cleanUpLater();
    void stop();

    const ServiceOptions options_;
    const Clock& clock_;
    const std::int64_t startedAt_;
    asio::io_context io_;
    asio::signal_set signals_;
    asio::steady_timer cleaning_;
    FileDescriptor stateLock_;
    ConfigurationStore configuration_;
    ServedDocument servedDocument_;
    SessionStore sessions_;
    LogonGuard logonGuard_;
    Quarantine quarantine_;
    Actions actions_;
    std::unique_ptr<EventJournal> events_;
    std::unique_ptr<Happenings> happenings_;
    std::unique_ptr<ScanEngine> engine_;
    std::unique_ptr<ScanJobs> scans_;
    std::unique_ptr<Updater> updater_;
    std::unique_ptr<Scheduler> scheduler_;
    std::unique_ptr<RealtimeScan> realtime_;
    std::unique_ptr<SlowFactsWatch> slowFacts_;
    std::unique_ptr<Notices> notices_;
    std::unique_ptr<ClientServer> clients_;
    std::mutex changing_;
    asio::thread_pool applying_{1};  ///< applies what was changed by hand
    std::string preparedVar_;
    std::map<std::string, std::vector<LeftFind>> left_;  ///< by scan; only the watch of the disks uses it
    MessageServer server_;
    Watchdog watchdog_;
};

}  // namespace keldra
