#pragma once

#include "service/access/logon_guard.h"
#include "service/access/password.h"
#include "service/access/second_factor.h"
#include "service/access/session_store.h"
#include "service/base/clock.h"
#include "service/base/files.h"
#include "service/clients/client_server.h"
#include "service/engine/scan_engine.h"
#include "service/events/event_journal.h"
#include "service/metrics/scan_metrics.h"
#include "service/notices/notices.h"
#include "service/quarantine/actions.h"
#include "service/quarantine/quarantine.h"
#include "service/realtime/realtime_scan.h"
#include "service/scanning/scan_jobs.h"
#include "service/schedules/scheduler.h"
#include "service/server/chronicle.h"
#include "service/server/client_finds.h"
#include "service/server/dispatcher.h"
#include "service/server/folder_questions.h"
#include "service/server/happenings.h"
#include "service/server/message_server.h"
#include "service/server/protection_facts.h"
#include "service/server/settings_applier.h"
#include "service/server/slow_facts.h"
#include "service/server/var_folder.h"
#include "service/server/watchdog.h"
#include "service/settings/configuration_store.h"
#include "service/settings/served_document.h"
#include "service/settings/state_folder.h"
#include "service/updates/updater.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
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

/// The service: owns all parts, starts and ends them.
class Service {
public:
    explicit Service(ServiceOptions options, const Clock& clock = systemClock());
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Takes the state folder and the socket and reads what is stored. False, with one sentence in `error`, when the
    /// service cannot run.
    bool open(std::string& error);
    /// Answers requests until SIGTERM or SIGINT; SIGHUP reads the configuration and the signatures again.
    void run();

private:
    std::vector<std::string> ownFolders() const;
    Parts parts();
    void makeParts();
    void makeJournal();
    void makeNotices();
    NoticeTexts noticeTexts();
    void makeScans();
    SlowQuestions slowQuestions();
    ClientHooks clientHooks();
    void loadSignatures();
    bool lastScheduledScanWasCut() const;
    bool startScheduledScan();
    bool startScheduledUpdate();
    void signaturesChanged();
    void putInForce(const NORVConfig& config);
    void listenToChanges();
    void cleanUp();
    void awaitSignal();
    void reload();
    void cleanUpLater();
    void endInAnyCase() const;
    bool stopLanes();
    void stop();

    const ServiceOptions options_;
    const Clock& clock_;
    asio::io_context io_;
    asio::signal_set signals_;
    asio::steady_timer cleaning_;
    StateFolder state_;
    Lanes lanes_;
    std::atomic<bool> cleaningUp_ = false;
    ConfigurationStore configuration_;
    ServedDocument servedDocument_;
    VarFolder varFolder_;
    FolderQuestions folders_{lanes_.folders};
    PasswordFile password_;
    SessionStore sessions_;
    LogonGuard logonGuard_;
    SecondFactor secondFactor_;
    PendingLogons pendingLogons_;
    Quarantine quarantine_;
    Actions actions_;
    std::unique_ptr<EventJournal> events_;
    std::unique_ptr<Happenings> happenings_;
    std::unique_ptr<Chronicle> chronicle_;
    ShareUsers shareUsers_;
    std::unique_ptr<ClientFinds> clientFinds_;
    ScanMetrics scanMetrics_;
    std::unique_ptr<ScanEngine> engine_;
    std::unique_ptr<ScanJobs> scans_;
    std::unique_ptr<Updater> updater_;
    std::unique_ptr<Scheduler> scheduler_;
    std::unique_ptr<RealtimeScan> realtime_;
    std::unique_ptr<SlowFactsWatch> slowFacts_;
    std::optional<const Witnesses> witnesses_;
    std::unique_ptr<Notices> notices_;
    std::unique_ptr<ClientServer> clients_;
    std::map<std::string, std::vector<LeftFind>> left_;  ///< by scan; only the watch of the disks uses it
    std::unique_ptr<SettingsApplier> applier_;
    Running running_;
    std::unique_ptr<Dispatcher> dispatcher_;
    MessageServer server_;
    Watchdog watchdog_;
};

}  // namespace keldra
