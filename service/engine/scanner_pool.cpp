#include "service/engine/scanner_pool.h"

#include "norv/log.h"
#include "norv/time_text.h"
#include "service/engine/scan_attempt.h"
#include "service/engine/scan_user.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <exception>
#include <filesystem>
#include <new>
#include <optional>

namespace keldra {

namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

constexpr unsigned MOST_BACKGROUND = 16;
/// The real-time scan counts by itself how many it has scanned at a time; some of them may hang.
constexpr unsigned MOST_REALTIME = 32;
constexpr uint64_t MIB = uint64_t{1} << 20U;
constexpr uint64_t LEAST_MEMORY = 512 * MIB;  ///< for a worker, beyond the file itself
constexpr uint64_t MOST_MEMORY = 1024 * MIB;
constexpr uint64_t SMALL_SET = 64 * MIB;  ///< signatures that take no more need no thought for memory
constexpr uint32_t LONGEST_SCAN = 600;    ///< seconds
constexpr std::chrono::milliseconds REALTIME_GRACE = 500ms;  ///< beyond the limit that the engine keeps itself
constexpr std::chrono::milliseconds USUAL_GRACE = 2s;
constexpr auto STOP_STEP = 50ms;
constexpr auto END_PATIENCE = 500ms;
constexpr auto RETIRE_PATIENCE = 10s;
constexpr auto BUSY_TICK = 50ms;
constexpr auto IDLE_TICK = 500ms;
constexpr auto SAVE_EVERY = 5min;
constexpr auto FIRST_PAUSE = 250ms;
constexpr auto LONGEST_PAUSE = 60s;
constexpr auto STEADY_LIFE = 60s;  ///< a host that lived so long was no failure at its start
constexpr int TRIES = 3;

std::string scannerBeside(const std::string& given) {
    if (!given.empty()) return given;
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "keldra-scanner";
}

ScannerProgram programOf(const EngineSettings& settings) {
    const ScanUser user = scanUser(settings.scanUser);
    return {.path = scannerBeside(settings.scanner),
            .user = user.user,
            .group = user.group,
            .fileSize = settings.fileSize,
            .memory = std::clamp(physicalMemory() / 8, LEAST_MEMORY, MOST_MEMORY),
            .memberSize = settings.memberSize};
}

ScannerTeam::Settings teamOf(const EngineSettings& settings, const ScannerProgram& program) {
    const unsigned cores = std::max(2U, std::thread::hardware_concurrency());
    return {.temporaryFolder = settings.temporaryFolder,
            .user = program.user,
            .group = program.group,
            .realtime = MOST_REALTIME,
            .background = std::min(cores, MOST_BACKGROUND),
            .room = settings.room};
}

EngineSettings complete(EngineSettings settings) {
    if (settings.temporaryFolder.empty())
        settings.temporaryFolder =
            std::filesystem::temp_directory_path() / ("keldra-scan-" + std::to_string(::getpid()));
    return settings;
}

/// What threads of the pool do now and then is done the next time where there was no memory or thread for it.
template <typename Work>
void guarded(const Work& work) {
    try {
        work();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The scanner cannot be looked after: %s", error.what());
    }
}

bool sameContent(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

struct ScannerPool::Built {
    std::shared_ptr<Generation> generation;
    EngineState state;
    std::string failedFolder;
    bool hostDied = false;

    static Built failed(std::string message, std::string folder = {}) {
        Built built;
        built.state.database = EngineState::Database::FAILED;
        built.state.message = std::move(message);
        built.failedFolder = std::move(folder);
        return built;
    }
};

ScannerPool::ScannerPool(EngineSettings settings)
    : settings_(complete(std::move(settings))),
      program_(programOf(settings_)),
      team_(teamOf(settings_, program_)),
      cleanFiles_(settings_.cleanFile),
      watcher_([this](const std::stop_token& stop) { watch(stop); }) {
    state_.message = "The virus signatures were not loaded yet.";
}

ScannerPool::~ScannerPool() {
    ScannerPool::stopReloads();
    watcher_.request_stop();
    watcher_.join();
    cleanFiles_.save();
    team_.keepOnly(nullptr);
}

ScannerPool::Current ScannerPool::current() const {
    const std::lock_guard lock(mutex_);
    return current_;
}

/// Nothing when there are no signatures to wait for, or the lane does not wait.
ScannerPool::Current ScannerPool::awaitCurrent(ScanLane lane, const std::stop_token& stop) const {
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        const bool usable = current_ && current_->host->alive();
        const bool hopeless = state_.database == EngineState::Database::FAILED;
        const bool coming = current_ || loading_ > 0 || !reloads_.empty() || (restarting_ && !hopeless);
        if (usable) return current_;
        if (!coming || ending_ || lane == ScanLane::REALTIME) return nullptr;
        changed_.wait_for(lock, stop, 100ms, [] { return false; });
    }
    return nullptr;
}

ScanResult ScannerPool::scan(int fd, const std::string& /*path*/, const ScanOptions& options, std::stop_token stop) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return {Verdict::FAILED, "", "it is not a regular file"};
    const auto known = options.lane == ScanLane::REALTIME ? badFiles_.reasonOf(status) : std::nullopt;
    if (known) return lastingFailure(*known);
    for (int i = 1;; ++i) {
        const Current generation = awaitCurrent(options.lane, stop);
        if (!generation && stop.stop_requested()) return notFullyScanned(STOPPED);
        if (!generation) return {Verdict::FAILED, "", whyNone()};
        bool hostGone = false;
        ScanResult result = scanWith(generation, fd, status, options, stop, hostGone);
        if (!hostGone || options.lane == ScanLane::REALTIME || i == TRIES) return result;
    }
}

std::string ScannerPool::whyNone() const {
    const std::lock_guard lock(mutex_);
    return state_.database == EngineState::Database::FAILED ? state_.message : "there are no virus signatures";
}

bool ScannerPool::knowsClean(int place, const struct stat& status, const ScanOptions& options) const {
    const auto key = cleanFiles_.keyOf(place, status, options.archives, ::time(nullptr));
    return key && cleanFiles_.knows(*key);
}

ScanResult ScannerPool::scanWith(const Current& generation, int fd, const struct stat& status,
                                 const ScanOptions& options, const std::stop_token& stop, bool& hostGone) {
    if (status.st_size == 0) return {Verdict::CLEAN, "", ""};
    const auto size = static_cast<uint64_t>(status.st_size);
    if (size > settings_.fileSize) return notFullyScanned("it is too large for the engine");
    // A scanner may write below the folder that there was at its start, and nowhere else.
    struct stat folder {};
    if (::fstat(generation->temporary.get(), &folder) != 0 || folder.st_nlink == 0) {
        generation->host->end();
        hostGone = true;
        return {Verdict::FAILED, "", "the folder for temporary files is gone"};
    }
    const auto key = options.content.empty()
                         ? cleanFiles_.keyOf(fd, status, options.archives, ::time(nullptr))
                         : std::optional(cleanFiles_.keyOfContent(options.content, options.archives));
    if (key && cleanFiles_.knows(*key)) return {Verdict::CLEAN, "", ""};
    const auto memory = memory_.take(size, stop);
    if (!memory && stop.stop_requested()) return notFullyScanned(STOPPED);
    if (!memory) return notFullyScanned("there is not enough memory for a file of its size");
    std::string fault;
    ScannerTeam::Worker worker = team_.take(options.lane, generation->host, stop, fault);
    if (!worker && fault.empty()) return notFullyScanned(STOPPED);
    hostGone = !worker && !generation->host->alive();
    if (!worker) return {Verdict::FAILED, "", fault};
    const wire::ScanOrder order = orderOf(status, options);
    const auto grace = options.lane == ScanLane::REALTIME ? REALTIME_GRACE : USUAL_GRACE;
    ScanAttempt attempt;
    try {
        attempt = scanAt(*worker, fd, order, std::chrono::milliseconds(order.milliseconds) + grace, stop);
        if (attempt.kind == ScanAttempt::Kind::OVERDUE) noteHanging(*worker);
        hostGone = attempt.kind == ScanAttempt::Kind::ENDED && !generation->host->alive();
        if (attempt.result.lasting && !hostGone) badFiles_.add(status, attempt.result.detail);
    } catch (const std::bad_alloc&) {
        team_.discard(options.lane, worker);
        throw;
    }
    if (attempt.kind == ScanAttempt::Kind::ANSWERED)
        team_.giveBack(options.lane, std::move(worker));
    else
        team_.discard(options.lane, worker);
    if (attempt.result.verdict == Verdict::INFECTED && settings_.trusted && settings_.trusted(fd))
        return {Verdict::CLEAN, "", ""};
    struct stat after {};
    if (key && attempt.result.verdict == Verdict::CLEAN && ::fstat(fd, &after) == 0 && sameContent(status, after))
        cleanFiles_.add(*key, generation->identity);
    return attempt.result;
}

ScanLimits ScannerPool::limitsOf(const ScanOptions& options) const {
    const std::lock_guard lock(mutex_);
    const ScanLimits& usual = options.lane == ScanLane::REALTIME ? limits_.realtime : limits_.usual;
    const ScanLimits& wished = options.limits;
    return {.unpacked = wished.unpacked != 0 ? wished.unpacked : usual.unpacked,
            .members = wished.members != 0 ? wished.members : usual.members,
            .seconds = std::min(wished.seconds != 0 ? wished.seconds : usual.seconds, LONGEST_SCAN)};
}

void ScannerPool::setLimits(const EngineLimits& limits) {
    {
        const std::lock_guard lock(mutex_);
        limits_ = limits;
    }
    badFiles_.forget();
}

/// The order for one file.
wire::ScanOrder ScannerPool::orderOf(const struct stat& status, const ScanOptions& options) {
    const ScanLimits limits = limitsOf(options);
    wire::ScanOrder order;
    order.number = ++orders_;
    order.archives = options.archives ? 1 : 0;
    order.size = static_cast<uint64_t>(status.st_size);
    order.memberSizeLimit = options.memberSizeLimit;
    order.fileSize = std::min(settings_.memberSize, limits.unpacked);
    order.unpacked = limits.unpacked;
    order.layers = options.layers;
    order.members = limits.members;
    order.milliseconds = limits.seconds * 1000;
    order.memory = program_.memory;
    return order;
}

/// A worker inside a file system that does not answer ends only when that does.
void ScannerPool::noteHanging(const ScannerWorker& worker) {
    if (worker.host->endOf(worker.number, END_PATIENCE) || !worker.host->alive()) return;
    const std::lock_guard lock(mutex_);
    hanging_.emplace_back(worker.host, worker.number);
}

EngineState ScannerPool::state() const {
    const std::lock_guard lock(mutex_);
    std::erase_if(hanging_, [](const auto& one) {
        const auto host = one.first.lock();
        return !host || !host->alive() || host->endOf(one.second, 0ms);
    });
    EngineState copy = state_;
    copy.guarding = current_ && current_->host->alive();
    copy.reloading = loading_ > 0 || !reloads_.empty() || restarting_;
    copy.hanging = static_cast<unsigned int>(hanging_.size());
    return copy;
}

bool ScannerPool::ownsProcess(pid_t pid) const {
    const std::lock_guard lock(hostsMutex_);
    return std::any_of(hosts_.begin(), hosts_.end(), [pid](const auto& one) {
        const auto host = one.lock();
        return host && host->owns(pid);
    });
}

/// When there is no memory for a second set of signatures, the first one goes before.
void ScannerPool::makeRoomInMemory() {
    const Current old = current();
    if (!old) return;
    const uint64_t takes = old->host->memory();
    if (takes < SMALL_SET || takes + takes / 8 + SMALL_SET < settings_.availableMemory()) return;
    NORV_LOG(NORV_LOG_WARNING,
             "Memory does not suffice for old and new signatures: nothing is scanned while they load");
    {
        const std::lock_guard lock(mutex_);
        current_ = nullptr;
    }
    team_.keepOnly(nullptr);
    for (const auto until = Steady::now() + RETIRE_PATIENCE; team_.busy() && Steady::now() < until;)
        std::this_thread::sleep_for(STOP_STEP);
    old->host->end();
}

/// Starts a host with all that these folders hold.
ScannerPool::Built ScannerPool::build(std::vector<SignatureFolder> folders) {
    Built built;
    for (const SignatureFolder& folder : folders) {
        if (folder.error != 0)
            return Built::failed("The signatures in " + folder.path + " cannot be loaded: " + errorText(folder.error),
                                 folder.path);
        if (folder.missing) {
            NORV_LOG(NORV_LOG_WARNING, "There is no folder %s for signatures", folder.path.c_str());
            built.state.missingFolders.push_back(folder.path);
        }
    }
    const std::string identity = signaturesIdentity(folders);
    std::erase_if(folders, [](const SignatureFolder& folder) { return folder.files.empty(); });
    built.state.message = "There are no virus signatures.";
    if (folders.empty()) return built;
    if (program_.user != ::geteuid()) std::for_each(folders.begin(), folders.end(), openToReaders);
    makeRoomInMemory();
    const auto host = std::make_shared<ScannerHost>(program_);
    {
        const std::lock_guard lock(hostsMutex_);
        std::erase_if(hosts_, [](const auto& old) { return old.expired(); });
        hosts_.push_back(host);
    }
    {
        const std::lock_guard lock(mutex_);
        loadingHost_ = host;
        if (ending_) host->end();
    }
    const UnpackFolder temporary(settings_.temporaryFolder, "load", program_.user, program_.group);
    if (!temporary.usable()) {
        built = Built::failed("The folder for temporary files cannot be made: " + errorText(errno));
        built.hostDied = true;  // to be tried again
        return built;
    }
    FileDescriptor around(::openat(temporary.descriptor(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const auto news = host->load(folders, temporary.descriptor());
    if (!news) {
        built = Built::failed("The scanner ended while it loaded the signatures.");
        built.hostDied = true;
        return built;
    }
    describe(built, *news, folders);
    if (built.state.database != EngineState::Database::LOADED) return built;
    // What changed meanwhile may be in use or not: nothing is to be remembered under this name.
    const bool same = signaturesIdentity(readSignatureFolders(pathsOf(folders))) == signaturesIdentity(folders);
    built.generation =
        std::make_shared<Generation>(Generation{host, same ? identity : std::string(), std::move(around)});
    if (!host->confined() && !std::exchange(toldUnconfined_, true))
        NORV_LOG(NORV_LOG_WARNING,
                 "This kernel has no Landlock: scanners are kept from other files by their user only");
    return built;
}

/// What the host says of its load. A database without any signature is none.
void ScannerPool::describe(Built& built, const wire::HostNews& news,
                           const std::vector<SignatureFolder>& folders) const {
    std::string text;
    wire::take(news.engineVersion, built.state.engineVersion);
    wire::take(news.text, text);
    if (news.good == 0) {
        const auto failed = static_cast<std::size_t>(news.failedFolder);
        const bool known = news.failedFolder >= 0 && failed < folders.size();
        const std::string version = built.state.engineVersion;
        built = known ? Built::failed("The signatures in " + folders[failed].path + " cannot be loaded: " + text,
                                      folders[failed].path)
                      : Built::failed("The signatures cannot be used: " + text);
        built.state.engineVersion = version;
        return;
    }
    for (std::size_t i = 0; i < folders.size(); ++i) {
        built.state.signatures += news.signatures[i];
        if (folders[i].onlyForTrying()) built.state.signaturesForTrying += news.signatures[i];
        built.state.parts.insert(built.state.parts.end(), folders[i].parts.begin(), folders[i].parts.end());
        built.state.databaseTime = std::max(built.state.databaseTime, folders[i].newest);
    }
    if (built.state.signatures == 0) return;
    built.state.message.clear();
    built.state.database = EngineState::Database::LOADED;
    built.state.databaseVersion = news.databaseVersion > 0
                                      ? std::to_string(news.databaseVersion)
                                      : timeText(built.state.databaseTime, "%Y%m%d.%H%M", TimeZone::UTC);
}

/// Builds from all folders. While there is no engine at all, a folder that cannot be loaded does not keep the others
/// from protecting.
ScannerPool::Built ScannerPool::buildWhatGoes() {
    std::vector<std::string> paths = settings_.signatureFolders;
    const bool serving = current() != nullptr;
    Built built = build(readSignatureFolders(paths));
    std::string complaint;
    while (!built.generation && !built.failedFolder.empty() && !serving) {
        complaint = built.state.message;
        NORV_LOG(NORV_LOG_ERROR, "%s", complaint.c_str());
        std::erase(paths, built.failedFolder);
        built = build(readSignatureFolders(paths));
    }
    if (!complaint.empty()) built.state.message = complaint;
    if (!complaint.empty() && !built.generation) built.state.database = EngineState::Database::FAILED;
    return built;
}

/// Puts new signatures to use; when there are none, only the message of the state changes, as long as old ones serve.
bool ScannerPool::adopt(Built built) {
    const bool usable = built.generation != nullptr;
    const std::string message = built.state.message;
    if (usable) cleanFiles_.useSignatures(built.generation->identity);
    if (usable) badFiles_.forget();
    if (usable) team_.keepOnly(built.generation->host);
    Current old;  // ended after the lock is given back
    {
        const std::lock_guard lock(mutex_);
        loadingHost_ = nullptr;
        const bool serving = current_ && current_->host->alive();
        if (usable || !serving) {
            if (built.state.engineVersion.empty()) built.state.engineVersion = state_.engineVersion;
            built.state.restarts = state_.restarts;
            state_ = std::move(built.state);
            old = std::exchange(current_, std::move(built.generation));
        } else {
            state_.message = message;
        }
        if (usable) born_ = Steady::now();
        // A host that did not live to load is tried again, unless old signatures serve.
        if (built.hostDied && !serving && !ending_) planRestart();
    }
    if (!message.empty()) NORV_LOG(NORV_LOG_ERROR, "%s", message.c_str());
    if (usable) NORV_LOG(NORV_LOG_INFO, "%u virus signatures in use", state().signatures);
    return usable;
}

bool ScannerPool::load() {
    const std::lock_guard onlyOne(loadMutex_);
    {
        const std::lock_guard lock(mutex_);
        if (ending_) return false;
        ++loading_;
    }
    bool loaded = false;
    try {
        loaded = adopt(buildWhatGoes());
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The signatures cannot be loaded: %s", error.what());
    }
    const std::lock_guard lock(mutex_);
    --loading_;
    changed_.notify_all();
    return loaded;
}

void ScannerPool::reload(std::function<void(bool)> done) {
    const std::lock_guard lock(mutex_);
    if (!ending_) request(std::move(done));
}

void ScannerPool::request(std::function<void(bool)> done) {
    if (!reloader_.joinable()) reloader_ = std::jthread([this](const std::stop_token& stop) { reloadLoop(stop); });
    reloads_.push_back(std::move(done));
    changed_.notify_all();
}

void ScannerPool::stopReloads() {
    std::jthread finishing;
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        finishing.swap(reloader_);
        reloads_.clear();
        if (loadingHost_) loadingHost_->end();
    }
    // Its end asks it to stop and waits for it.
}

void ScannerPool::reloadLoop(const std::stop_token& stop) {
    while (true) {
        std::vector<std::function<void(bool)>> waiting;
        {
            std::unique_lock lock(mutex_);
            if (!changed_.wait(lock, stop, [this] { return !reloads_.empty(); })) return;
            waiting.swap(reloads_);
            ++loading_;  // so that the state never shows a gap between being asked and being at it
        }
        const bool loaded = load();
        {
            const std::lock_guard lock(mutex_);
            --loading_;
        }
        for (const auto& done : waiting) {
            guarded([&] {
                if (done && !stop.stop_requested()) done(loaded);
            });
        }
    }
}

/// For as long as the service lives: keeps an eye on the room that is taken and on the host.
void ScannerPool::watch(const std::stop_token& stop) {
    auto saved = Steady::now();
    while (!stop.stop_requested()) {
        {
            const bool busy = team_.busy();
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, stop, busy ? BUSY_TICK : IDLE_TICK, [&stop] { return stop.stop_requested(); });
            guarded([this] { restartWhenDead(); });
        }
        if (team_.busy()) guarded([this] { team_.watchRoom(); });
        if (Steady::now() - saved < SAVE_EVERY) continue;
        guarded([this] { cleanFiles_.save(); });
        saved = Steady::now();
    }
}

/// With the lock held.
void ScannerPool::planRestart() {
    ++state_.restarts;
    if (Steady::now() - born_ > STEADY_LIFE) pause_ = 0ms;
    restart_ = Steady::now() + pause_;
    pause_ = std::clamp<std::chrono::milliseconds>(pause_ * 2, FIRST_PAUSE, LONGEST_PAUSE);
    restarting_ = true;
}

/// With the lock held.
void ScannerPool::restartWhenDead() {
    if (current_ && !current_->host->alive() && !restarting_ && loading_ == 0 && !ending_) {
        NORV_LOG(NORV_LOG_ERROR, "The scanner has ended by itself and is started again");
        state_.message = "The scanner has ended by itself and is started again.";
        planRestart();
    }
    if (!restarting_ || Steady::now() < restart_ || ending_) return;
    if (loading_ == 0 && reloads_.empty()) request({});
    restarting_ = false;
}

std::unique_ptr<ScanEngine> makeScanEngine(EngineSettings settings) {
    return std::make_unique<ScannerPool>(std::move(settings));
}

int64_t EngineState::officialTime() const {
    int64_t oldest = 0;
    for (const SignaturePart& part : parts) {
        if (part.name == "daily") return part.built;
        if (oldest == 0 || part.built < oldest) oldest = part.built;
    }
    return oldest;
}

}  // namespace keldra
