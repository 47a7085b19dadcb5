#include "service/engine/scan_engine.h"

#include "norv/log.h"
#include "service/base/files.h"
#include "service/base/memory_budget.h"
#include "service/engine/clean_cache.h"
#include "service/engine/content_scan.h"

#include <clamav.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace keldra {

namespace {

struct FreeEngine {
    void operator()(cl_engine* old) const { cl_engine_free(old); }
};

/// The library with one set of signatures, and what was clean by them.
struct LoadedEngine {
    std::unique_ptr<cl_engine, FreeEngine> library;
    CleanCache clean;
};

using Engine = std::shared_ptr<LoadedEngine>;

void logEngineMessage(enum cl_msg severity, const char* /*full*/, const char* text, void* /*context*/) {
    NORV_LOG(severity >= CL_MSG_WARN ? NORV_LOG_WARNING : NORV_LOG_TRACE, "engine: %s", text ? text : "");
}

bool initLibrary() {
    static const bool ready = [] {
        cl_set_clcb_msg(logEngineMessage);
        return cl_init(CL_INIT_DEFAULT) == CL_SUCCESS;
    }();
    return ready;
}

std::string versionFromTime(int64_t seconds) {
    const auto when = static_cast<time_t>(seconds);
    struct tm parts {};
    std::array<char, 32> text{};
    if (gmtime_r(&when, &parts) == nullptr) return "";
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%d.%H%M", &parts)};
}

/// A compiled engine and what is known about it; without an engine, why there is none.
struct Built {
    Engine engine;
    EngineState state;
    std::string failedFolder;
};

Engine newEngine(const EngineSettings& settings) {
    auto loaded = std::make_shared<LoadedEngine>();
    if (initLibrary()) loaded->library.reset(cl_engine_new());
    if (!loaded->library) return nullptr;
    cl_engine* const engine = loaded->library.get();
    // The library's own memory of clean files does not know with which options they were found clean.
    cl_engine_set_num(engine, CL_ENGINE_DISABLE_CACHE, 1);
    cl_engine_set_num(engine, CL_ENGINE_MAX_RECURSION, ENGINE_RECURSION);
    cl_engine_set_num(engine, CL_ENGINE_MAX_FILESIZE, static_cast<long long>(settings.fileSize));
    cl_engine_set_num(engine, CL_ENGINE_MAX_SCANSIZE, static_cast<long long>(settings.scanSize));
    cl_engine_set_num(engine, CL_ENGINE_MAX_FILES, settings.files);
    cl_engine_set_num(engine, CL_ENGINE_MAX_SCANTIME, static_cast<long long>(settings.scanTime) * 1000);
    if (!settings.temporaryFolder.empty()) {
        cl_engine_set_str(engine, CL_ENGINE_TMPDIR, settings.temporaryFolder.c_str());
    }
    askAboutLayers(*engine);
    return loaded;
}

Built failedBuild(std::string message, std::string folder = "") {
    Built built;
    built.state.database = EngineState::Database::FAILED;
    built.state.message = std::move(message);
    built.failedFolder = std::move(folder);
    return built;
}

void describe(Built& built, int64_t newest) {
    int error = 0;
    const long long version = cl_engine_get_num(built.engine->library.get(), CL_ENGINE_DB_VERSION, &error);
    built.state.database = EngineState::Database::LOADED;
    built.state.databaseTime = newest;
    built.state.databaseVersion = version > 0 ? std::to_string(version) : versionFromTime(newest);
}

/// Takes what one folder holds into the engine. False, with the reason in `built`, when that is less than all.
bool loadFolder(Built& built, const SignatureFolder& folder) {
    if (folder.missing) built.state.missingFolders.push_back(folder.path);
    unsigned int count = 0;
    std::string fault = folder.error == 0 ? std::string() : errorText(folder.error);
    if (fault.empty() && !folder.files.empty()) {
        const cl_error_t code = cl_load(folder.path.c_str(), built.engine->library.get(), &count, CL_DB_STDOPT);
        if (code != CL_SUCCESS) fault = cl_strerror(code);
    }
    if (!fault.empty()) {
        built = failedBuild("The signatures in " + folder.path + " cannot be loaded: " + fault, folder.path);
        return false;
    }
    built.state.signatures += count;
    if (folder.onlyForTrying()) built.state.signaturesForTrying += count;
    built.state.parts.insert(built.state.parts.end(), folder.parts.begin(), folder.parts.end());
    return true;
}

/// Loads all folders that hold signatures into one new engine.
Built buildEngine(const EngineSettings& settings, const std::vector<std::string>& folders) {
    Built built;
    built.engine = newEngine(settings);
    if (!built.engine) return failedBuild("The engine cannot be started.");
    int64_t newest = 0;
    for (const std::string& path : folders) {
        const SignatureFolder folder = readSignatureFolder(path);
        if (!loadFolder(built, folder)) return built;
        newest = std::max(newest, folder.newest);
    }
    for (const std::string& path : built.state.missingFolders)
        NORV_LOG(NORV_LOG_WARNING, "There is no folder %s for signatures", path.c_str());
    if (built.state.signatures == 0) {
        built.engine.reset();
        built.state.message = "There are no virus signatures.";
        return built;
    }
    const cl_error_t code = cl_engine_compile(built.engine->library.get());
    if (code != CL_SUCCESS) return failedBuild(std::string("The signatures cannot be used: ") + cl_strerror(code));
    describe(built, newest);
    return built;
}

class ClamEngine : public ScanEngine {
public:
    explicit ClamEngine(EngineSettings settings) : settings_(std::move(settings)) {
        initLibrary();
        state_.engineVersion = cl_retver();
        state_.message = "The virus signatures were not loaded yet.";
    }

    ScanResult scan(int fd, const std::string& path, const ScanOptions& options, std::stop_token stop) override;
    EngineState state() const override;
    bool load() override;
    void reload(std::function<void(bool)> done) override;
    void stopReloads() override;

private:
    Engine engine() const;
    Built build();
    bool adopt(Built built);
    bool loadGuarded();
    void reloadLoop(const std::stop_token& stop);

    const EngineSettings settings_;
    MemoryBudget memory_;
    mutable std::mutex mutex_;
    std::condition_variable_any wanted_;
    Engine engine_;
    EngineState state_;
    int loading_ = 0;
    std::deque<std::function<void(bool)>> reloads_;
    std::mutex loadMutex_;
    std::jthread reloader_;
};

Engine ClamEngine::engine() const {
    const std::lock_guard lock(mutex_);
    return engine_;
}

ScanResult ClamEngine::scan(int fd, const std::string& path, const ScanOptions& options, std::stop_token stop) {
    const Engine engine = this->engine();
    if (!engine) return {Verdict::FAILED, "", "there are no virus signatures"};
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return {Verdict::FAILED, "", "it is not a regular file"};
    if (static_cast<uint64_t>(status.st_size) > settings_.fileSize)
        return notFullyScanned("it is too large for the engine");
    const auto size = static_cast<std::size_t>(status.st_size);
    const auto memory = memory_.take(size, stop);
    if (!memory && stop.stop_requested()) return notFullyScanned(STOPPED);
    if (!memory) return notFullyScanned("there is not enough memory for a file of its size");
    ScanResult result =
        scanContent({fd, size, path.c_str(), engine->library.get(), engine->clean, options, std::move(stop)});
    if (result.verdict == Verdict::INFECTED && settings_.trusted && settings_.trusted(fd))
        return {Verdict::CLEAN, "", ""};
    return result;
}

EngineState ClamEngine::state() const {
    const std::lock_guard lock(mutex_);
    EngineState copy = state_;
    copy.guarding = engine_ != nullptr;
    copy.reloading = loading_ > 0 || !reloads_.empty();
    return copy;
}

/// Builds from all folders. While there is no engine at all, a folder that cannot be loaded does not keep the others
/// from protecting.
Built ClamEngine::build() {
    std::vector<std::string> folders = settings_.signatureFolders;
    Built built = buildEngine(settings_, folders);
    std::string complaint;
    while (!built.engine && !built.failedFolder.empty() && !engine()) {
        complaint = built.state.message;
        NORV_LOG(NORV_LOG_ERROR, "%s", complaint.c_str());
        std::erase(folders, built.failedFolder);
        built = buildEngine(settings_, folders);
    }
    if (!complaint.empty()) built.state.message = complaint;
    if (!complaint.empty() && !built.engine) built.state.database = EngineState::Database::FAILED;
    return built;
}

/// Puts a new engine to use; when there is none, only the message of the state changes, as long as an old one serves.
bool ClamEngine::adopt(Built built) {
    const bool usable = built.engine != nullptr;
    const std::string message = built.state.message;
    Engine old;  // freed after the lock is given back: that takes long
    {
        const std::lock_guard lock(mutex_);
        --loading_;
        if (usable || !engine_) {
            built.state.engineVersion = state_.engineVersion;
            state_ = std::move(built.state);
            old = std::exchange(engine_, std::move(built.engine));
        } else {
            state_.message = message;
        }
    }
    if (!message.empty()) NORV_LOG(NORV_LOG_ERROR, "%s", message.c_str());
    if (usable) NORV_LOG(NORV_LOG_INFO, "%u virus signatures in use", state().signatures);
    return usable;
}

bool ClamEngine::load() {
    const std::lock_guard onlyOne(loadMutex_);
    {
        const std::lock_guard lock(mutex_);
        ++loading_;
    }
    return adopt(build());
}

/// For the thread that nobody else watches.
bool ClamEngine::loadGuarded() {
    try {
        return load();
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "The signatures cannot be loaded: %s", error.what());
        const std::lock_guard lock(mutex_);
        --loading_;
        return false;
    }
}

void ClamEngine::reload(std::function<void(bool)> done) {
    const std::lock_guard lock(mutex_);
    reloads_.push_back(std::move(done));
    if (!reloader_.joinable()) reloader_ = std::jthread([this](const std::stop_token& stop) { reloadLoop(stop); });
    wanted_.notify_all();
}

void ClamEngine::stopReloads() {
    std::jthread ending;
    {
        const std::lock_guard lock(mutex_);
        ending.swap(reloader_);
        reloads_.clear();
    }
    // Its end asks it to stop and waits for it.
}

void ClamEngine::reloadLoop(const std::stop_token& stop) {
    while (true) {
        std::deque<std::function<void(bool)>> waiting;
        {
            std::unique_lock lock(mutex_);
            if (!wanted_.wait(lock, stop, [this] { return !reloads_.empty(); })) return;
            waiting.swap(reloads_);
            ++loading_;  // so that the state never shows a gap between being asked and being at it
        }
        const bool loaded = loadGuarded();
        {
            const std::lock_guard lock(mutex_);
            --loading_;
        }
        for (const auto& done : waiting) {
            if (done && !stop.stop_requested()) done(loaded);
        }
    }
}

}  // namespace

int64_t EngineState::officialTime() const {
    int64_t oldest = 0;
    for (const SignaturePart& part : parts) {
        if (part.name == "daily") return part.built;
        if (oldest == 0 || part.built < oldest) oldest = part.built;
    }
    return oldest;
}

std::unique_ptr<ScanEngine> makeScanEngine(EngineSettings settings) {
    return std::make_unique<ClamEngine>(std::move(settings));
}

}  // namespace keldra
