#include "service/scanner/content_scan.h"

#include "service/base/files.h"
#include "service/scanner/late_folders.h"
#include "service/scanner/zip64.h"

#include <clamav.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace keldra {

namespace {

std::string reported;                      ///< the library's last error
volatile std::sig_atomic_t outOfRoom = 0;  ///< a file for what is unpacked grew beyond its limit

void noteMessage(enum cl_msg severity, const char* /*full*/, const char* text, void* /*context*/) {
    if (severity >= CL_MSG_ERROR) reported = text ? text : "unknown";
    while (!reported.empty() && reported.back() == '\n') reported.pop_back();
}

void noteTooLarge(int /*signal*/) { outOfRoom = 1; }

constexpr uint32_t MOST_LAYERS = 20;
constexpr std::size_t CUT_CHUNK = std::size_t{256} << 10U;  ///< more than it unpacks between two looks at its limits

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

/// What a scan knows about the layers it is in; the engine hands it to `inspect` for each of them.
struct LayerWatch {
    explicit LayerWatch(const ContentScan& watched) : scan(watched) {}

    const ContentScan& scan;
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
    const ScanOptions& options = scan.options;
    const uint32_t layers = options.layers == 0 || options.layers > MOST_LAYERS ? MOST_LAYERS : options.layers;
    if (archives > layers) {
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
                   const char* /*name*/, size_t size, const char* content, uint32_t level, uint32_t /*attributes*/,
                   void* context) {
    if (context == nullptr) return CL_CLEAN;
    LayerWatch& watch = *static_cast<LayerWatch*>(context);
    const std::size_t archives = watch.enter(level, type ? type : "");
    // What it cuts off in the middle of unpacking it takes for all there is.
    if (level > 0 && size + CUT_CHUNK >= watch.scan.memberLimit) watch.incomplete = "a limit of the engine was met";
    if (watch.leaveOut(archives, size)) return CL_BREAK;
    if (watch.scan.options.archives && content && type && std::string_view(type).starts_with("CL_TYPE_ZIP") &&
        hasZip64Files({content, size}))
        watch.incomplete = "it holds files in a form for large archives that the engine does not read";
    return CL_CLEAN;
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

/// Finds that only tell that the engine could not see everything.
ScanResult judgeFind(const std::string& name) {
    if (name.starts_with("Heuristics.Limits.Exceeded"))
        return notFullyScanned("a limit of the engine was met (" + name + ")");
    if (name.starts_with("Heuristics.Encrypted"))
        return notFullyScanned("it is encrypted, wholly or in parts (" + name + ")");
    return {Verdict::INFECTED, name, ""};
}

ScanResult judge(cl_error_t code, const char* name, const LayerWatch& watch) {
    if (code == CL_VIRUS) {
        const ScanResult find = judgeFind(name ? name : "unknown");
        return find.verdict == Verdict::INFECTED || watch.incomplete.empty() ? find : notFullyScanned(watch.incomplete);
    }
    if (code == CL_ETIMEOUT || code == CL_EMAXREC || code == CL_EMAXSIZE || code == CL_EMAXFILES) {
        return notFullyScanned("a limit of the engine was met");
    }
    if (outOfRoom != 0) return notFullyScanned("what it holds takes too much room unpacked");
    if (code != CL_CLEAN) return {Verdict::FAILED, "", std::string("the engine failed: ") + cl_strerror(code)};
    if (!watch.incomplete.empty()) return notFullyScanned(watch.incomplete);
    if (!reported.empty()) return {Verdict::FAILED, "", "the engine failed: " + reported};
    return {Verdict::CLEAN, "", ""};
}

/// Up to here a file is read at once into memory that is used again and again, which spares the library a mapping and
/// its page faults for every file.
constexpr std::size_t SMALL_FILE = std::size_t{1} << 20U;
constexpr std::uintptr_t WORTH_PREPARING = std::uintptr_t{64} << 10U;

using Map = std::unique_ptr<cl_fmap_t, decltype(&cl_fmap_close)>;

ScanResult scanMap(LayerWatch& watch, const Map& map) {
    if (!map) return judge(CL_EMAP, nullptr, watch);
    cl_scan_options flags = engineOptions(watch.scan.options);
    const char* name = nullptr;
    unsigned long scanned = 0;
    const cl_error_t code =
        cl_scanmap_callback(map.get(), nullptr, &name, &scanned, watch.scan.library, &flags, &watch);
    return judge(code, name, watch);
}

/// The content of a small file, shorter when it was cut short since; nothing, with errno set, when it cannot be read.
std::optional<std::span<const char>> readSmall(const ContentScan& scan) {
    static std::vector<char> buffer(SMALL_FILE);
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
    LayerWatch watch(scan);
    return scanMap(watch, Map(cl_fmap_open_memory(content->data(), content->size()), cl_fmap_close));
}

/// The library touches each page of its copy before it has the page read: the kernel then maps every page twice and
/// interrupts the other workers for each. Done for all of them at once, that costs nothing to speak of. A kernel before
/// 5.14 knows no MADV_POPULATE_WRITE, and leaves it at the first step.
void makeReady(void* buffer, size_t count) {
    static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto begin = reinterpret_cast<std::uintptr_t>(buffer);
    const std::uintptr_t end = (begin + count) / page * page;
    if (begin % page != 0 || end - begin < WORTH_PREPARING) return;
    ::madvise(buffer, end - begin, MADV_DONTNEED);
    ::madvise(buffer, end - begin, MADV_POPULATE_WRITE);
}

/// `handle`: the LayerWatch.
off_t readContent(void* handle, void* buffer, size_t count, off_t offset) {
    makeReady(buffer, count);
    return ::pread(static_cast<LayerWatch*>(handle)->scan.fd, buffer, count, offset);
}

ScanResult scanLarge(const ContentScan& scan) {
    LayerWatch watch(scan);
    return scanMap(watch, Map(cl_fmap_open_handle(&watch, 0, scan.size, readContent, 1), cl_fmap_close));
}

}  // namespace

bool initLibrary() {
    std::signal(SIGXFSZ, noteTooLarge);
    cl_set_clcb_msg(noteMessage);
    return cl_init(CL_INIT_DEFAULT) == CL_SUCCESS;
}

const std::string& libraryError() { return reported; }

void askAboutLayers(cl_engine& library) { cl_engine_set_clcb_file_inspection(&library, inspect); }

ScanResult scanContent(const ContentScan& scan) {
    reported.clear();
    outOfRoom = 0;
    makeFoldersLate();
    return scan.size <= SMALL_FILE ? scanSmall(scan) : scanLarge(scan);
}

}  // namespace keldra
