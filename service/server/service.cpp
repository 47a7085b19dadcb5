#include "service/server/service.h"

#include "norv/log.h"
#include "service/base/memory_budget.h"
#include "service/metrics/measured_engine.h"
#include "service/server/notify.h"
#include "service/settings/settings_table.h"
#include "service/tree/share_roots.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <set>
#include <thread>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::seconds CLEANING_INTERVAL{60};
/// How long the start waits for the signatures; large sets go on loading while the console is served already.
constexpr std::chrono::seconds SIGNATURES_PATIENCE{1};
/// Infected files of each scan that are looked for where they were.
constexpr std::size_t FINDS_LOOKED_AT = 1000;
constexpr const char* TEST_VIRUS = "Test_Virus";
/// How long a save waits until what it changed is in force.
constexpr std::chrono::seconds APPLYING_PATIENCE{3};
constexpr std::chrono::seconds LANES_PATIENCE{2};
constexpr std::chrono::seconds ENDING_PATIENCE{6};
constexpr std::chrono::milliseconds MEMORY_PATIENCE{50};
constexpr rlim_t WANTED_DESCRIPTORS = 65536;

/// A connection or a file under scan takes a descriptor each; the usual soft limit is low.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= WANTED_DESCRIPTORS) return;
    limit.rlim_cur = std::min(limit.rlim_max, WANTED_DESCRIPTORS);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// The level that the document or the environment names; a document need not name one.
NORV_LOG_SEVERITY logLevel(const NORVConfig& config) {
    const bool named = std::getenv("KELDRA_CONFIGURATION_USERDEBUGLEVEL") ||
                       configValueOr(config, "Configuration", "UserDebugLevel", int32_t{-1}) != -1;
    return named ? config.UserDebugLevel(NORV_LOG_INFO) : NORV_LOG_INFO;
}

/// For what must not be left undone when there is no memory for a moment.
template <typename Work>
void inAnyCase(Work work) {
    for (;; std::this_thread::sleep_for(MEMORY_PATIENCE)) {
        try {
            return work();
        } catch (const std::bad_alloc&) {
            continue;
        }
    }
}

std::vector<std::string> signatureFolders(const ServiceOptions& options) {
    std::vector<std::string> folders = options.signatures;
    folders.push_back(StateFolder(options.state).signatures());
    return folders;
}

}  // namespace

Service::Service(ServiceOptions options, const Clock& clock)
    : options_(std::move(options)),
      clock_(clock),
      signals_(io_, SIGTERM, SIGINT, SIGHUP),
      cleaning_(io_),
      state_(options_.state),
      configuration_(options_.config, clock),
      varFolder_(configuration_, options_.var),
      password_(state_.password()),
      sessions_(state_.sessions(), clock, options_.sessionLimits),
      logonGuard_(clock),
      secondFactor_(state_.secondFactor(), clock),
      pendingLogons_(clock),
      quarantine_(state_.quarantine(), state_.trusted(), clock),
      actions_(quarantine_),
      running_{clock, clock.now()},
      server_(io_, options_.access, options_.serverLimits,
              [this](IPCMessage request, const Caller& caller, Reply reply) {
                  dispatcher_->answer(std::move(request), caller, std::move(reply));
              }),
      watchdog_(
          io_, [this](std::function<void()> done) { lanes_.general.post(std::move(done)); },
          [this] { return realtime_->working(); }) {}

Service::~Service() {
    try {
        stop();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "Ending failed: %s", error.what());
    }
}

/// Never scanned: what lies here is meant to hold what is found elsewhere, its names and its content.
std::vector<std::string> Service::ownFolders() const {
    std::vector<std::string> folders = signatureFolders(options_);
    folders.push_back(options_.state);
    return folders;
}

Parts Service::parts() {
    return {configuration_, *events_,   folders_,   logonGuard_, *notices_,     password_,       pendingLogons_,
            quarantine_,    *realtime_, *scans_,    *scheduler_, secondFactor_, servedDocument_, sessions_,
            shareUsers_,    *updater_,  varFolder_, *clients_,   running_,      scanMetrics_,    *witnesses_};
}

bool Service::open(std::string& error) {
    raiseDescriptorLimit();
    if (!state_.take(error) || !server_.listen(options_.socket, error)) return false;
    state_.removeLeftovers();
    removeUnfinishedWrites(options_.config.parent_path(), options_.config.filename().string());
    configuration_.refresh();
    configuration_.backUp();
    sessions_.load();
    for (const SessionInfo& session : sessions_.list(password_.mark())) logonGuard_.know(session.address);
    if (!quarantine_.open()) NORV_LOG(NORV_LOG_ERROR, "The quarantine cannot be used; finds are not put away");
    makeParts();
    loadSignatures();
    listenToChanges();
    applier_->apply(APPLYING_PATIENCE);
    dispatcher_ = std::make_unique<Dispatcher>(io_, parts(), lanes_, *chronicle_);
    updater_->recover();
    scheduler_->start();
    return true;
}

void Service::listenToChanges() {
    applier_ =
        std::make_unique<SettingsApplier>(configuration_, [this](const NORVConfig& config) { putInForce(config); });
    configuration_.onChange([this](const ConfigurationChange& change) {
        chronicle_->settingsChanged(change);
        if (!change.byHand) return applier_->apply(APPLYING_PATIENCE);
        // Whoever comes upon it may be the thread that all connections share.
        applier_->applySoon(true);
    });
    sessions_.onChange([this] { lanes_.general.post([this] { sessions_.write(); }); });
}

void Service::makeJournal() {
    events_ = std::make_unique<EventJournal>(EventJournalSettings{.folder = state_.events()}, clock_);
    happenings_ = std::make_unique<Happenings>(*events_);
    chronicle_ = std::make_unique<Chronicle>(*events_);
    clientFinds_ = std::make_unique<ClientFinds>(*events_, shareUsers_);
    quarantine_.onTidying({.announced = [this](std::size_t count,
                                               std::int64_t seconds) { happenings_->removalAnnounced(count, seconds); },
                           .removed = [this](const auto& items) { happenings_->removed(items); }});
}

/// Last of all parts: what is said depends on all others.
void Service::makeNotices() {
    std::array<char, 256> host{};
    if (::gethostname(host.data(), host.size() - 1) != 0) host[0] = '?';
    notices_ = std::make_unique<Notices>(NoticesSettings{
        .folder = options_.state / "notices", .host = host.data(), .texts = [this] { return noticeTexts(); }});
    events_->onEvents([this](const std::vector<Event>& events) { notices_->take(events); });
}

NoticeTexts Service::noticeTexts() {
    const Protection verdict = protectionOf(*witnesses_, hear(*witnesses_));
    NoticeTexts texts{protectionLevelName(verdict.level), {}, events_->days(7)};
    for (const ProtectionReason& reason : verdict.reasons)
        texts.reasons.push_back({reason.code, reason.text, reason.detail, reason.count, reason.unit});
    return texts;
}

void Service::makeScans() {
    ScanJobsSettings scans;
    scans.historyFolder = state_.history();
    scans.ownFolders = ownFolders();
    scans.onFind = [this](const ScanStatus& scan, const ScanFind& find) { happenings_->found(scan, find); };
    scans.onEnd = [this](const ScanStatus& scan) {
        happenings_->scanEnded(scan);
        if (slowFacts_) slowFacts_->lookAgain();
    };
    scans_ = std::make_unique<ScanJobs>(std::move(scans), *engine_, actions_, *events_);
}

/// Infected files that the newest scan of each kind left in place. Files made to try out scanners are left on purpose.
/// The reports of a scan are read once.
SlowQuestions Service::slowQuestions() {
    SlowQuestions questions{shareRoots(*configuration_.snapshot()), options_.state, {}};
    std::map<std::string, std::vector<LeftFind>> known = std::exchange(left_, {});
    std::set<ScanKind> seen;
    for (const ScanStatus& status : scans_->history()) {
        if (status.state == ScanState::RUNNING || !seen.insert(status.kind).second || status.found == 0) continue;
        std::vector<LeftFind>& left = left_[status.id];
        if (const auto before = known.find(status.id); before != known.end()) {
            left = std::move(before->second);
        } else {
            for (ScanFind& find : scans_->leftFinds(status.id, FINDS_LOOKED_AT))
                if (find.type != TEST_VIRUS) left.push_back({std::move(find.path), status.id});
        }
        questions.left.insert(questions.left.end(), left.begin(), left.end());
    }
    return questions;
}

bool Service::lastScheduledScanWasCut() const {
    const std::vector<ScanStatus> scans = scans_->history();
    const auto last = std::ranges::find(scans, ScanKind::SCHEDULED, &ScanStatus::kind);
    return last != scans.end() && scanOutcome(*last) == "interrupted";
}

void Service::makeParts() {
    makeJournal();
    engine_ = std::make_unique<MeasuredEngine>(
        makeScanEngine({.signatureFolders = signatureFolders(options_),
                        .temporaryFolder = state_.unpacking(),
                        .trusted = [this](int fd) { return quarantine_.isTrusted(fd); },
                        .scanner = options_.scanner,
                        .scanUser = options_.scanUser,
                        .cleanFile = options_.state / "clean-files",
                        .fileSize = std::min(EngineSettings().fileSize, physicalMemory() / 4)}),
        scanMetrics_);
    // Before anything else is told: an earlier version's history comes first in a new journal.
    makeScans();
    events_->add({.kind = EventKind::SERVICE, .detail = "The service started."});
    updater_ = std::make_unique<Updater>(
        UpdaterSettings{.state = options_.state,
                        .signatures = state_.signatures(),
                        .freshclam = options_.freshclam,
                        .databaseOwner = options_.databaseOwner},
        UpdaterHooks{.configuration = [this] { return NORVAUConfig(*configuration_.snapshot()); },
                     .varPath = [this] { return varFolder_.path(); },
                     .engineVersion = [this] { return engine_->state().engineVersion; },
                     .reload =
                         [this] {
                             const bool loaded = engine_->load();
                             if (loaded) realtime_->forgetClean();
                             // A folder may have been left out.
                             return loaded && engine_->state().message.empty();
                         },
                     .ended = [this](const UpdateStatus& update) { happenings_->updateEnded(update); }},
        clock_);
    scheduler_ = std::make_unique<Scheduler>(
        state_.schedule(), clock_,
        Scheduler::Hooks{.startScan = [this] { return startScheduledScan(); },
                         .startUpdate = [this] { return startScheduledUpdate(); },
                         .randomSecond = {},
                         .scanEnded = [this] { return !scans_->running(ScanKind::SCHEDULED); },
                         .updateEnded =
                             [this] {
                                 const UpdateStatus status = updater_->status();
                                 return !status.running || !status.scheduled;
                             },
                         .scanWasCut = [this] { return lastScheduledScanWasCut(); }});
    realtime_ = std::make_unique<RealtimeScan>(*engine_, actions_, ownFolders(), [this](const RealtimeReport& report) {
        if (report.result.verdict == Verdict::INFECTED)
            happenings_->foundByRealtime(report.path, report.result.signature, report.outcome);
        else
            events_->add({.kind = EventKind::NOT_SCANNED,
                          .severity = EventSeverity::WARNING,
                          .task = "realtime",
                          .path = report.path,
                          .detail = report.result.detail});
    });
    actions_.onBegin([this](const ScannedFile& file) { return realtime_->beginAction(file.file.get(), file.path); });
    slowFacts_ = std::make_unique<SlowFactsWatch>([this] { return slowQuestions(); });
    witnesses_.emplace(Witnesses{clock_, configuration_, sessions_, *events_, *happenings_, quarantine_, *engine_,
                                 *scans_, *realtime_, *slowFacts_});
    makeNotices();
    clients_ = std::make_unique<ClientServer>(clientHooks());
}

ClientHooks Service::clientHooks() {
    return {.scan =
                [this](int fd, const std::string& name, const std::string& content, std::stop_token stop) {
                    return engine_->scan(fd, name, {.lane = ScanLane::CLIENT, .content = content}, std::move(stop));
                },
            .report =
                [this](const ClientReport& report) {
                    clientFinds_->add(report);
                    const ScanResult& result = report.result;
                    const bool found = result.verdict == Verdict::INFECTED;
                    NORV_LOG(NORV_LOG_WARNING, "Scan for %s of %s: %s%s", report.client.c_str(), report.name.c_str(),
                             found ? "found " : "", found ? result.signature.c_str() : result.detail.c_str());
                },
            .engine = [this] { return engine_->state(); },
            .reload = [this] { engine_->reload([this](bool) { signaturesChanged(); }); }};
}

void Service::loadSignatures() {
    const auto loaded = std::make_shared<std::promise<void>>();
    auto done = loaded->get_future();
    engine_->reload([this, loaded](bool) {
        signaturesChanged();
        loaded->set_value();
    });
    done.wait_for(SIGNATURES_PATIENCE);
}

void Service::signaturesChanged() {
    const EngineState state = engine_->state();
    if (state.database != EngineState::Database::LOADED)
        NORV_LOG(NORV_LOG_ERROR, "No signatures: nothing can be found. %s", state.message.c_str());
    updater_->noteComponents(state.message.empty() || state.database == EngineState::Database::NONE);
    realtime_->forgetClean();
}

bool Service::startScheduledScan() {
    const auto config = configuration_.snapshot();
    const NORVScheduledScanConfig record(*config);
    const NORVScanConfig& settings = record;
    const auto valueOf = [&config](const char* name) { return settingValue(*config, *findSetting(name)); };
    const ScanStart start =
        scans_->start({.kind = ScanKind::SCHEDULED,
                       .settings = settings,
                       .roots = {},
                       .shareRoots = shareRoots(*config),
                       .lowPriority = valueOf("limits.scheduled_low_priority") == "1",
                       .window = {valueOf("limits.scheduled_from"), valueOf("limits.scheduled_until")}});
    if (!start.started) NORV_LOG(NORV_LOG_WARNING, "The scheduled scan was not started: %s", start.message.c_str());
    happenings_->scheduledScan(start);
    return start.started;
}

bool Service::startScheduledUpdate() {
    return updater_->startScheduled(NORVScheduledAUConfig(*configuration_.snapshot()).components);
}

void Service::putInForce(const NORVConfig& config) {
    setLogLevel(logLevel(config));
    varFolder_.prepare();
    scheduler_->configure({.scan = NORVScheduledScanConfig(config),
                           .update = NORVScheduledAUConfig(config),
                           .randomizedUpdate = configValueOr(config, "Varnel", "RandomizedUpdate", false)});
    quarantine_.setLimits(quarantineLimits(config));
    engine_->setLimits(engineLimits(config));
    realtime_->configure(config);
    clients_->configure(clientSettings(config));
}

void Service::awaitSignal() {
    inAnyCase([this] {
        signals_.async_wait([this](const asio::error_code& error, int signal) {
            if (error) return;
            if (signal != SIGHUP) {
                NORV_LOG(NORV_LOG_INFO, "Ending");
                notifyManager("STOPPING=1");
                return stop();
            }
            awaitSignal();
            reload();
        });
    });
}

void Service::reload() {
    NORV_LOG(NORV_LOG_INFO, "Reading configuration and signatures again");
    configuration_.refresh();
    engine_->reload([this](bool) { signaturesChanged(); });
}

void Service::cleanUpLater() {
    cleaning_.expires_after(CLEANING_INTERVAL);
    inAnyCase([this] {
        cleaning_.async_wait([this](const asio::error_code& error) {
            if (error) return;
            cleanUpLater();
            configuration_.refresh();
            if (!cleaningUp_) lanes_.general.post([this] { cleanUp(); });
        });
    });
}

void Service::cleanUp() {
    // One at a time: the last one may still wait for a disk.
    if (cleaningUp_.exchange(true)) return;
    try {
        sessions_.cleanUp(password_.mark());
        scans_->cleanUp();
        updater_->cleanUp();
        quarantine_.tidy();
        chronicle_->settle();
        clientFinds_->tellRest();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "Not all is in order: %s", error.what());
    }
    cleaningUp_ = false;
}

void Service::run() {
    awaitSignal();
    cleanUpLater();
    server_.start();
    NORV_LOG(NORV_LOG_INFO, "Ready on %s", options_.socket.c_str());
    notifyManager("READY=1");
    watchdog_.start();
    // What one handler throws, for want of memory for instance, ends neither the others nor the service.
    while (!io_.stopped()) {
        try {
            io_.run();
        } catch (const std::exception& error) {
            NORV_LOG(NORV_LOG_ERROR, "A request or timer failed: %s", error.what());
        }
    }
}

namespace {

/// For threads that hang in the kernel, and that would meet what is being destroyed should they come back.
/// A thread that hangs in the kernel keeps all descriptors of this process open, whatever its end. So the others learn
/// of it here: the state folder is free for the next service, and whoever is connected, such as the scanners, goes.
[[noreturn]] void endAtOnce(int stateLock) {
    NORV_LOG(NORV_LOG_WARNING, "Ending although some work hangs in file systems that do not answer");
    std::fflush(nullptr);
    constexpr long MOST_DESCRIPTORS = 1L << 20U;
    const auto most = static_cast<int>(std::min(::sysconf(_SC_OPEN_MAX), MOST_DESCRIPTORS));
    // Nothing is asked of a file: it may be the one that hangs.
    for (int fd = STDERR_FILENO + 1; fd < most; ++fd) ::shutdown(fd, SHUT_RDWR);
    StateFolder::unlock(stateLock);
    std::_Exit(EXIT_SUCCESS);
}

}  // namespace

/// What a thread that does not come back keeps waiting is not worth waiting for: all that was acknowledged is stored.
void Service::endInAnyCase() const {
    std::thread([stateLock = state_.lockDescriptor()] {
        std::this_thread::sleep_for(ENDING_PATIENCE);
        endAtOnce(stateLock);
    }).detach();
}

/// True when no thread of the lanes works with any part any more.
bool Service::stopLanes() {
    const auto until = std::chrono::steady_clock::now() + LANES_PATIENCE;
    const auto left = [until] {
        const auto time = until - std::chrono::steady_clock::now();
        return std::max(std::chrono::ceil<std::chrono::milliseconds>(time), std::chrono::milliseconds(0));
    };
    bool ended = !applier_ || applier_->stop(left());
    for (WorkLane* const lane : lanes_.all()) ended = lane->stop(left()) && ended;
    return ended;
}

/// Whatever works with another part ends before it.
void Service::stop() {
    asio::error_code ignored;
    signals_.cancel(ignored);
    cleaning_.cancel();
    watchdog_.stop();
    server_.stop();
    if (dispatcher_) dispatcher_->stop();
    const bool lanesEnded = stopLanes();
    if (applier_) sessions_.write();
    if (clients_) clients_->stop();
    // Whoever asks for the verdict ends before what the verdict asks.
    if (notices_ && events_) events_->onEvents({}), notices_->stop();
    if (slowFacts_) slowFacts_->stop();
    if (scheduler_) scheduler_->stop();
    const bool realtimeEnded = !realtime_ || realtime_->stop();
    if (updater_) updater_->stop();
    if (!lanesEnded) endAtOnce(state_.lockDescriptor());
    scans_.reset();
    if (engine_) engine_->stopReloads();
    if (!realtimeEnded) endAtOnce(state_.lockDescriptor());
    engine_.reset();
    if (chronicle_) chronicle_->settle(true);
    if (events_) events_->add({.kind = EventKind::SERVICE, .detail = "The service ended."});
    events_.reset();
}

}  // namespace keldra
