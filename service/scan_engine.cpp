#include "service/scan_engine.h"

#include "norv/log.h"
#include "norv/scan_config.h"
#include "service/clean_cache.h"
#include "service/files.h"

#include <clamav.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

namespace keldra {

namespace {

namespace fs = std::filesystem;

/// Layers of any sort that the engine itself follows; archives, mail, documents and what is inside them all count.
constexpr uint32_t ENGINE_RECURSION = 24;
constexpr uint32_t MOST_LAYERS = 20;
constexpr uint64_t MEBIBYTE = uint64_t{1} << 20U;

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

/// The engine's names for what counts as an archive layer, without "CL_TYPE_".
bool isArchive(std::string_view type) {
    static constexpr std::array<std::string_view, 32> TYPES{
        "ZIP",       "ZIPSFX",   "RAR",       "RARSFX",   "7Z",
        "7ZSFX",     "ARJ",      "ARJSFX",    "GZ",       "BZ",
        "XZ",        "OLD_TAR",  "POSIX_TAR", "CPIO_OLD", "CPIO_ODC",
        "CPIO_NEWC", "CPIO_CRC", "MSCAB",     "CABSFX",   "ISO9660",
        "UDF",       "DMG",      "XAR",       "HFSPLUS",  "HFSPLUS_CARVED",
        "MBR",       "GPT",      "APM",       "EGG",      "ALZ",
        "LHA_LZH",   "AUTOIT"};
    constexpr std::string_view PREFIX = "CL_TYPE_";
    if (type.substr(0, PREFIX.size()) == PREFIX) type.remove_prefix(PREFIX.size());
    return std::find(TYPES.begin(), TYPES.end(), type) != TYPES.end();
}

constexpr const char* STOPPED = "the scan was stopped";

/// What a scan knows about the layers it is in; the engine hands it to `inspect` for each of them.
struct LayerWatch {
    ScanOptions options;
    std::stop_token stop;
    std::array<bool, ENGINE_RECURSION + 8> archive{};  ///< by level: whether that layer is an archive
    std::size_t last = 0;
    std::string incomplete;  ///< why something was left out

    /// Archives around the layer at `level`, which is of the type `type`.
    std::size_t enter(std::size_t level, std::string_view type);
    bool leaveOut(std::size_t archives, uint64_t size);
};

std::size_t LayerWatch::enter(std::size_t level, std::string_view type) {
    level = std::min(level, archive.size() - 1);
    // Levels that the engine passed without a word (embedded and normalized data) are no archives.
    for (std::size_t passed = last + 1; passed < level; ++passed) archive[passed] = false;
    archive[level] = isArchive(type);
    last = level;
    return static_cast<std::size_t>(
        std::count(archive.begin(), archive.begin() + static_cast<std::ptrdiff_t>(level), true));
}

bool LayerWatch::leaveOut(std::size_t archives, uint64_t size) {
    const uint32_t layers = options.layers == 0 || options.layers > MOST_LAYERS ? MOST_LAYERS : options.layers;
    if (stop.stop_requested()) {
        incomplete = STOPPED;
    } else if (archives > layers) {
        incomplete = "archives are nested more deeply than the settings allow";
    } else if (archives > 0 && options.memberSizeLimit != 0 && size > options.memberSizeLimit) {
        incomplete = "a file in the archive is larger than the settings allow";
    } else {
        return false;
    }
    return true;
}

/// The engine's question about each layer, from the file itself inwards; CL_BREAK leaves it out.
cl_error_t inspect(int /*fd*/, const char* type, const char** /*ancestors*/, size_t /*parentSize*/,
                   const char* /*name*/, size_t size, const char* /*content*/, uint32_t level, uint32_t /*attributes*/,
                   void* context) {
    if (context == nullptr) return CL_CLEAN;
    LayerWatch& watch = *static_cast<LayerWatch*>(context);
    const std::size_t archives = watch.enter(level, type ? type : "");
    return watch.leaveOut(archives, size) ? CL_BREAK : CL_CLEAN;
}

cl_scan_options engineOptions(const ScanOptions& options) {
    cl_scan_options flags{};
    flags.general = CL_SCAN_GENERAL_HEURISTICS;
    flags.parse = ~0U;
    if (!options.archives) flags.parse &= ~static_cast<uint32_t>(CL_SCAN_PARSE_ARCHIVE);
    flags.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX | CL_SCAN_HEURISTIC_ENCRYPTED_DOC;
    if (options.archives) flags.heuristic |= CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE;
    return flags;
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

/// A name of a signature of our own ends in this.
std::string withoutSuffix(std::string name) {
    constexpr std::string_view SUFFIX = ".UNOFFICIAL";
    if (name.size() > SUFFIX.size() && name.compare(name.size() - SUFFIX.size(), SUFFIX.size(), SUFFIX) == 0) {
        name.resize(name.size() - SUFFIX.size());
    }
    return name;
}

ScanResult notFullyScanned(std::string detail) { return {Verdict::NOT_FULLY_SCANNED, "", std::move(detail)}; }

/// Finds that only tell that the engine could not see everything.
ScanResult judgeFind(const std::string& name) {
    if (startsWith(name, "Heuristics.Limits.Exceeded"))
        return notFullyScanned("a limit of the engine was met (" + name + ")");
    if (startsWith(name, "Heuristics.Encrypted"))
        return notFullyScanned("it is encrypted, wholly or in parts (" + name + ")");
    return {Verdict::INFECTED, withoutSuffix(name), ""};
}

ScanResult judge(cl_error_t code, const char* name, const LayerWatch& watch) {
    if (code == CL_VIRUS) {
        const ScanResult find = judgeFind(name ? name : "unknown");
        return find.verdict == Verdict::INFECTED || watch.incomplete.empty() ? find : notFullyScanned(watch.incomplete);
    }
    // A reading that a stop cut short may look like any failure.
    if (watch.incomplete == STOPPED) return notFullyScanned(STOPPED);
    if (code == CL_ETIMEOUT || code == CL_EMAXREC || code == CL_EMAXSIZE || code == CL_EMAXFILES) {
        return notFullyScanned("a limit of the engine was met");
    }
    if (code != CL_CLEAN) return {Verdict::FAILED, "", std::string("the engine failed: ") + cl_strerror(code)};
    if (!watch.incomplete.empty()) return notFullyScanned(watch.incomplete);
    return {Verdict::CLEAN, "", ""};
}

/// Up to here a file is read at once into memory that is used again and again, which spares the library a mapping and
/// its page faults for every file.
constexpr std::size_t SMALL_FILE = std::size_t{1} << 20U;
/// From here on the library reads through `readUnlessStopped`, so that a stop need not wait for the end of the file.
constexpr std::size_t LARGE_FILE = std::size_t{32} << 20U;

using Map = std::unique_ptr<cl_fmap_t, decltype(&cl_fmap_close)>;

/// One scan: what is scanned, and how.
struct ContentScan {
    int fd;
    std::size_t size;
    const char* path;
    LoadedEngine& engine;
    LayerWatch& watch;
};

ScanResult scanMap(const ContentScan& scan, const Map& map) {
    if (!map) return judge(CL_EMAP, nullptr, scan.watch);
    cl_scan_options flags = engineOptions(scan.watch.options);
    const char* name = nullptr;
    unsigned long scanned = 0;
    const cl_error_t code =
        cl_scanmap_callback(map.get(), scan.path, &name, &scanned, scan.engine.library.get(), &flags, &scan.watch);
    return judge(code, name, scan.watch);
}

/// The content of a small file, shorter when it was cut short since; nothing, with errno set, when it cannot be read.
std::optional<std::span<const char>> readSmall(const ContentScan& scan) {
    thread_local std::vector<char> buffer(SMALL_FILE);
    std::size_t length = 0;
    while (length < scan.size) {
        const ssize_t got = ::pread(scan.fd, buffer.data() + length, scan.size - length, static_cast<off_t>(length));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return std::nullopt;
        if (got == 0) break;
        length += static_cast<std::size_t>(got);
    }
    return std::span<const char>(buffer).first(length);
}

ScanResult scanSmall(const ContentScan& scan) {
    const auto content = readSmall(scan);
    if (!content) return {Verdict::FAILED, "", "it cannot be read: " + errorText(errno)};
    if (content->empty()) return {Verdict::CLEAN, "", ""};
    const CleanCache::Key key = CleanCache::keyOf(*content, scan.watch.options);
    if (scan.engine.clean.knows(key)) return {Verdict::CLEAN, "", ""};
    const Map map(cl_fmap_open_memory(content->data(), content->size()), cl_fmap_close);
    ScanResult result = scanMap(scan, map);
    if (result.verdict == Verdict::CLEAN) scan.engine.clean.add(key);
    return result;
}

off_t readUnlessStopped(void* handle, void* buffer, size_t count, off_t offset) {
    const ContentScan& scan = *static_cast<const ContentScan*>(handle);
    if (!scan.watch.stop.stop_requested()) return ::pread(scan.fd, buffer, count, offset);
    scan.watch.incomplete = STOPPED;
    errno = EIO;
    return -1;
}

ScanResult scanLarge(ContentScan& scan) {
    return scanMap(scan, Map(cl_fmap_open_handle(&scan, 0, scan.size, readUnlessStopped, 1), cl_fmap_close));
}

ScanResult scanContent(ContentScan& scan) {
    if (scan.size <= SMALL_FILE) return scanSmall(scan);
    if (scan.size >= LARGE_FILE) return scanLarge(scan);
    cl_scan_options flags = engineOptions(scan.watch.options);
    const char* name = nullptr;
    unsigned long scanned = 0;
    const cl_error_t code =
        cl_scandesc_callback(scan.fd, scan.path, &name, &scanned, scan.engine.library.get(), &flags, &scan.watch);
    return judge(code, name, scan.watch);
}

bool isSignatureFile(const fs::path& path) {
    static constexpr std::array<std::string_view, 36> EXTENSIONS{
        ".cvd", ".cld", ".cud", ".db",  ".hdb", ".hdu", ".hsb", ".hsu", ".mdb",  ".mdu", ".msb",  ".msu",
        ".ndb", ".ndu", ".ldb", ".ldu", ".sdb", ".zmd", ".rmd", ".idb", ".fp",   ".sfp", ".pdb",  ".gdb",
        ".wdb", ".cbc", ".ftm", ".cfg", ".cdb", ".cat", ".crb", ".ign", ".ign2", ".yar", ".yara", ".imp"};
    return std::find(EXTENSIONS.begin(), EXTENSIONS.end(), path.extension().string()) != EXTENSIONS.end();
}

/// The signature files of a folder; their newest modification time.
struct FolderContent {
    std::size_t files = 0;
    int64_t newest = 0;
};

FolderContent lookInto(const std::string& folder) {
    FolderContent content;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        struct stat status {};
        if (!isSignatureFile(entry->path()) || ::stat(entry->path().c_str(), &status) != 0) continue;
        ++content.files;
        content.newest = std::max(content.newest, static_cast<int64_t>(status.st_mtim.tv_sec));
    }
    return content;
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
    cl_engine_set_clcb_file_inspection(engine, inspect);
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

/// Loads all folders that hold signatures into one new engine.
Built buildEngine(const EngineSettings& settings, const std::vector<std::string>& folders) {
    Built built;
    built.engine = newEngine(settings);
    if (!built.engine) return failedBuild("The engine cannot be started.");
    int64_t newest = 0;
    for (const std::string& folder : folders) {
        const FolderContent content = lookInto(folder);
        if (content.files == 0) continue;
        const cl_error_t code =
            cl_load(folder.c_str(), built.engine->library.get(), &built.state.signatures, CL_DB_STDOPT);
        if (code != CL_SUCCESS) {
            return failedBuild("The signatures in " + folder + " cannot be loaded: " + cl_strerror(code), folder);
        }
        newest = std::max(newest, content.newest);
    }
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
    void reloadLoop(const std::stop_token& stop);

    const EngineSettings settings_;
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
    LayerWatch watch;
    watch.options = options;
    watch.stop = std::move(stop);
    ContentScan content{fd, static_cast<std::size_t>(status.st_size), path.c_str(), *engine, watch};
    ScanResult result = scanContent(content);
    if (result.verdict == Verdict::INFECTED && settings_.trusted && settings_.trusted(fd))
        return {Verdict::CLEAN, "", ""};
    return result;
}

EngineState ClamEngine::state() const {
    const std::lock_guard lock(mutex_);
    EngineState copy = state_;
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
        const bool loaded = load();
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

ScanOptions scanOptionsOf(const NORVScanConfig& settings) {
    return {settings.scanCompressed, settings.compressionLayer, settings.compressFileSizeLimit * MEBIBYTE};
}

std::unique_ptr<ScanEngine> makeScanEngine(EngineSettings settings) {
    return std::make_unique<ClamEngine>(std::move(settings));
}

}  // namespace keldra
