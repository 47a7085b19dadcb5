#include "service/server/service.h"

#include "norv/log.h"
#include "service/base/memory_budget.h"
#include "service/engine/extension_list.h"
#include "service/server/notify.h"
#include "service/server/protection_facts.h"
#include "service/settings/settings_table.h"
#include "service/tree/share_roots.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <asio/post.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <set>
#include <utility>

namespace keldra {

namespace {

constexpr std::chrono::seconds CLEANING_INTERVAL{60};
/// How long the start waits for the signatures; large sets go on loading while the console is served already.
constexpr std::chrono::seconds SIGNATURES_PATIENCE{3};
/// Infected files of each scan that are looked for where they were.
constexpr std::size_t FINDS_LOOKED_AT = 1000;
constexpr const char* TEST_VIRUS = "Test_Virus";
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

std::vector<std::string> signatureFolders(const ServiceOptions& options) {
    std::vector<std::string> folders = options.signatures;
    folders.push_back(options.state / "signatures");
    return folders;
}

}  // namespace

Service::Service(ServiceOptions options, Answering answering, const Clock& clock)
    : options_(std::move(options)),
      clock_(clock),
      startedAt_(clock.now()),
      signals_(io_, SIGTERM, SIGINT, SIGHUP),
      cleaning_(io_),
      configuration_(options_.config, clock),
      sessions_(options_.state / "sessions", clock, options_.sessionLimits),
      logonGuard_(clock),
      quarantine_(options_.state / "quarantine", options_.state / "trusted", clock),
      actions_(quarantine_),
      server_(
          io_, options_.access, options_.serverLimits,
          [this, answer = answering.answer](const IPCMessage& request) { return answer(*this, request); },
          answering.atOnce),
      watchdog_(
          io_, [this](std::function<void()> done) { server_.probe(std::move(done)); },
          [this] { return realtime_->working(); }) {}

Service::~Service() {
    try {
        stop();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "Ending failed: %s", error.what());
    }
}

std::string Service::varPath() const {
    const auto config = configuration_.snapshot();
    std::string path = configValueOr(*config, "Configuration", "VarPath", std::string());
    return path.empty() ? options_.var.string() : path;
}

/// Never scanned: what lies here is meant to hold what is found elsewhere, its names and its content.
std::vector<std::string> Service::ownFolders() const {
    std::vector<std::string> folders = signatureFolders(options_);
    folders.push_back(options_.state);
    return folders;
}

bool Service::lockState(std::string& error) {
    const auto path = options_.state / "keldrad.lock";
    stateLock_ = FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    // A record lock, since it ends with this process; flock() would live on in a child that has not become freshclam
    // yet.
    struct flock whole {};
    whole.l_type = F_WRLCK;
    if (!stateLock_) {
        error = "Cannot open " + path.string() + ": " + errorText(errno) + ".";
    } else if (::fcntl(stateLock_.get(), F_SETLK, &whole) != 0) {
        const bool held = errno == EACCES || errno == EAGAIN;
        error = held ? "Another keldrad already works on " + options_.state.string() + "."
                     : "Cannot lock " + path.string() + ": " + errorText(errno) + ".";
    }
    return error.empty();
}

bool Service::makeFolders(std::string& error) const {
    for (const auto& [folder, mode] : {std::pair{options_.state, mode_t{0700}},
                                       {options_.state / "tmp", mode_t{0700}},
                                       {options_.state / "signatures", mode_t{0755}}}) {
        if (makeFolder(folder, mode)) continue;
        error = "Cannot make the folder " + folder.string() + ": " + errorText(errno) + ".";
        return false;
    }
    return true;
}

/// What a kill left in the middle of a write or of unpacking an archive. A folder for unpacking that others may enter
/// is not the one that was made here.
void Service::removeLeftovers() const {
    for (const auto& folder : {options_.state, options_.state / "history", options_.state / "events"})
        removeUnfinishedWrites(folder);
    removeUnfinishedWrites(options_.config.parent_path(), options_.config.filename().string());
    const auto unpacking = options_.state / "tmp";
    std::error_code error;
    if (std::filesystem::symlink_status(unpacking, error).permissions() != std::filesystem::perms::owner_all) return;
    for (std::filesystem::directory_iterator entry(unpacking, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        std::filesystem::remove_all(entry->path(), ignored);
    }
}

bool Service::open(std::string& error) {
    raiseDescriptorLimit();
    if (!makeFolders(error) || !lockState(error) || !server_.listen(options_.socket, error)) return false;
    removeLeftovers();
    configuration_.refresh();
    sessions_.load();
    if (!quarantine_.open()) NORV_LOG(NORV_LOG_ERROR, "The quarantine cannot be used; finds are not put away");
    makeParts();
    loadSignatures();
    configuration_.onChange([this](ConfigurationStore::Change change) {
        if (change == ConfigurationStore::Change::SAVED) return configurationChanged();
        // Whoever comes upon it may be the thread that all connections share.
        asio::post(applying_, [this] { applyGuarded(); });
    });
    configurationChanged();
    updater_->recover();
    scheduler_->start();
    return true;
}

void Service::prepareVar() {
    const std::string folder = varPath();
    if (folder == preparedVar_) return;
    preparedVar_ = folder;
    if (!makeFolder(folder, 02770)) {
        NORV_LOG(NORV_LOG_ERROR, "The folder %s cannot be made: %s", folder.c_str(), errorText(errno).c_str());
        return;
    }
    writeDefaultExtensions(folder);
}

void Service::makeJournal() {
    events_ = std::make_unique<EventJournal>(EventJournalSettings{.folder = options_.state / "events"}, clock_);
    happenings_ = std::make_unique<Happenings>(*events_);
    events_->add({.kind = EventKind::SERVICE, .detail = "The service started."});
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
    const Protection verdict = protectionOf(*this);
    NoticeTexts texts{protectionLevelName(verdict.level), "", ""};
    for (const ProtectionReason& reason : verdict.reasons) {
        texts.reasons += "- " + reason.text;
        if (!reason.detail.empty()) texts.reasons += " (" + readable(reason.detail) + ")";
        texts.reasons += "\n";
    }
    for (const DayFigures& day : events_->days(7))
        texts.week += day.day + ": " + std::to_string(day.scanned) + " files scanned, " + std::to_string(day.found) +
                      " found, " + std::to_string(day.failed) + " not scanned\n";
    return texts;
}

void Service::makeScans() {
    ScanJobsSettings scans;
    scans.historyFolder = options_.state / "history";
    scans.ownFolders = ownFolders();
    scans.onFind = [this](const ScanStatus& scan, const ScanFind& find) { happenings_->found(scan, find); };
    scans.onEnd = [this](const ScanStatus& scan) {
        happenings_->scanEnded(scan);
        if (slowFacts_) slowFacts_->lookAgain();
    };
    scans_ = std::make_unique<ScanJobs>(std::move(scans), *engine_, actions_);
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

void Service::makeParts() {
    makeJournal();
    engine_ = makeScanEngine({.signatureFolders = signatureFolders(options_),
                              .temporaryFolder = options_.state / "tmp",
                              .trusted = [this](int fd) { return quarantine_.isTrusted(fd); },
                              .scanner = options_.scanner,
                              .scanUser = options_.scanUser,
                              .cleanFile = options_.state / "clean-files",
                              .fileSize = std::min(EngineSettings().fileSize, physicalMemory() / 4)});
    makeScans();
    updater_ = std::make_unique<Updater>(
        UpdaterSettings{.state = options_.state,
                        .signatures = options_.state / "signatures",
                        .freshclam = options_.freshclam,
                        .databaseOwner = options_.databaseOwner},
        UpdaterHooks{.configuration = [this] { return NORVAUConfig(*configuration_.snapshot()); },
                     .varPath = [this] { return varPath(); },
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
        options_.state / "schedule.json", clock_,
        Scheduler::Hooks{.startScan = [this] { return startScheduledScan(); },
                         .startUpdate = [this] { return startScheduledUpdate(); },
                         .randomSecond = {},
                         .scanEnded = [this] { return !scans_->running(ScanKind::SCHEDULED); },
                         .updateEnded =
                             [this] {
                                 const UpdateStatus status = updater_->status();
                                 return !status.running || !status.scheduled;
                             }});
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
    slowFacts_ = std::make_unique<SlowFactsWatch>([this] { return slowQuestions(); });
    makeNotices();
    clients_ = std::make_unique<ClientServer>(clientHooks());
}

ClientHooks Service::clientHooks() {
    return {.scan =
                [this](int fd, const std::string& name, std::stop_token stop) {
                    return engine_->scan(fd, name, {.lane = ScanLane::CLIENT}, std::move(stop));
                },
            .report =
                [](const ClientReport& report) {
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
    return start.started;
}

bool Service::startScheduledUpdate() {
    return updater_->startScheduled(NORVScheduledAUConfig(*configuration_.snapshot()).components);
}

void Service::configurationChanged() {
    // One after the other, each with the newest document, so that the last one applied is the last one stored.
    const std::lock_guard lock(changing_);
    const auto config = configuration_.snapshot();
    setLogLevel(logLevel(*config));
    prepareVar();
    scheduler_->configure({.scan = NORVScheduledScanConfig(*config),
                           .update = NORVScheduledAUConfig(*config),
                           .randomizedUpdate = configValueOr(*config, "Varnel", "RandomizedUpdate", false)});
    quarantine_.setLimits(quarantineLimits(*config));
    realtime_->configure(*config);
    clients_->configure(clientSettings(*config));
}

void Service::applyGuarded() noexcept try { configurationChanged(); } catch (const std::exception& error) {
    NORV_LOG(NORV_LOG_ERROR, "The configuration cannot be applied: %s", error.what());
}

void Service::awaitSignal() {
    signals_.async_wait([this](const asio::error_code& error, int signal) {
        if (error) return;
        if (signal != SIGHUP) {
            NORV_LOG(NORV_LOG_INFO, "Ending");
            notifyManager("STOPPING=1");
            return stop();
        }
        reload();
        awaitSignal();
    });
}

void Service::reload() {
    NORV_LOG(NORV_LOG_INFO, "Reading configuration and signatures again");
    configuration_.refresh();
    engine_->reload([this](bool) { signaturesChanged(); });
}

void Service::cleanUpLater() {
    cleaning_.expires_after(CLEANING_INTERVAL);
    cleaning_.async_wait([this](const asio::error_code& error) {
        if (error) return;
        sessions_.cleanUp();
        scans_->cleanUp();
        updater_->cleanUp();
        asio::post(applying_, [this] { quarantine_.tidy(); });
        configuration_.refresh();
        cleanUpLater();
    });
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
[[noreturn]] void endAtOnce() {
    NORV_LOG(NORV_LOG_WARNING, "Ending although scans hang in file systems that do not answer");
    std::fflush(nullptr);
    std::_Exit(EXIT_SUCCESS);
}

}  // namespace

/// Whatever works with another part ends before it.
void Service::stop() {
    asio::error_code ignored;
    signals_.cancel(ignored);
    cleaning_.cancel();
    watchdog_.stop();
    server_.stop();
    applying_.join();
    if (clients_) clients_->stop();
    // Whoever asks for the verdict ends before what the verdict asks.
    if (notices_ && events_) events_->onEvents({}), notices_->stop();
    if (slowFacts_) slowFacts_->stop();
    if (scheduler_) scheduler_->stop();
    const bool realtimeEnded = !realtime_ || realtime_->stop();
    if (updater_) updater_->stop();
    scans_.reset();
    if (engine_) engine_->stopReloads();
    if (!realtimeEnded) endAtOnce();
    engine_.reset();
    if (events_) events_->add({.kind = EventKind::SERVICE, .detail = "The service ended."});
    events_.reset();
}

}  // namespace keldra
