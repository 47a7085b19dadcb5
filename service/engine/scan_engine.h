#pragma once

#include "service/base/memory_budget.h"
#include "service/engine/scan_limits.h"
#include "service/engine/scan_result.h"
#include "service/engine/signature_files.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

namespace keldra {

/// What the engine works with at the moment.
struct EngineState {
    enum class Database { NONE, LOADED, FAILED };

    Database database = Database::NONE;
    std::string engineVersion;
    std::string databaseVersion;  ///< version of the newest official part, else the time of the newest file
    unsigned int signatures = 0;
    unsigned int signaturesForTrying = 0;     ///< of them, from a folder that holds only what ships for trying out
    std::vector<SignaturePart> parts;         ///< the official ones in use; empty: there are none
    std::vector<std::string> missingFolders;  ///< that were asked for and do not exist
    int64_t databaseTime = 0;                 ///< seconds since the epoch; 0 without a database
    bool reloading = false;
    std::string message;  ///< English; what went wrong with the last load, empty when it went well

    bool guarding = false;      ///< files can be scanned right now
    unsigned int restarts = 0;  ///< times that the scanner had to be started again since the service's start
    unsigned int hanging = 0;   ///< scanners that took too long and could not be ended yet

    /// When the official signatures that change daily were built, in seconds since the epoch; that of the oldest
    /// official part when there is none of that name, 0 without any.
    int64_t officialTime() const;
};

/// The engine as the rest of the service sees it. All members may be called from any thread.
class ScanEngine {
public:
    virtual ~ScanEngine() = default;

    /// Scans an open regular file from its beginning, whatever its offset. `path` is for messages only. A stop asked
    /// for in the meantime ends the scan at once. A file that the scanner could not deal with is FAILED, with the
    /// reason; the real-time lane is told so without another try until signatures change. While signatures are loaded
    /// and none are in use, the real-time lane is refused (FAILED), and the others wait.
    virtual ScanResult scan(int fd, const std::string& path, const ScanOptions& options, std::stop_token stop) = 0;

    /// Whether the very same file was clean in a scan with these options and the signatures in use, so that it need not
    /// even be opened. `place`: an open folder or file of its file system; `status`: as just taken from the file.
    virtual bool knowsClean(int /*place*/, const struct stat& /*status*/, const ScanOptions& /*options*/) const {
        return false;
    }

    virtual EngineState state() const = 0;

    /// Reads the signatures and waits for it. Scans go on with the old ones meanwhile, as long as there is memory for
    /// both, and go on with them for good when the new ones cannot be loaded. Returns whether the new ones are in use.
    virtual bool load() = 0;

    /// The same in the background; `done`, which may be empty, is called from there with `load`'s result. A call while
    /// one is under way is remembered and done after it.
    virtual void reload(std::function<void(bool)> done) = 0;

    /// Ends a load under way (nobody's `done` is called) and forgets the others. To be called before whatever these use
    /// goes; nothing is loaded after it.
    virtual void stopReloads() {}

    /// How much a file may cost from here on, where its scan's options say nothing else. What a scanner could not deal
    /// with before is tried again.
    virtual void setLimits(const EngineLimits& /*limits*/) {}

    /// Whether a process belongs to the engine: what it opens must not wait for a scan.
    virtual bool ownsProcess(pid_t /*pid*/) const { return false; }
};

/// What an engine is made of.
struct EngineSettings {
    std::vector<std::string> signatureFolders;  ///< all that exist are loaded together
    std::string temporaryFolder;                ///< for what is unpacked; empty: one below the system's
    /// Asked about a file in which something was found; true makes it clean. May be empty.
    std::function<bool(int fd)> trusted;
    std::string scanner;    ///< the program keldra-scanner; empty: beside this program
    std::string scanUser;   ///< whom it runs as where this process may choose; empty: "keldra-scan", else "nobody"
    std::string cleanFile;  ///< where it is kept which files were clean; empty: nowhere
    std::function<uint64_t()> availableMemory = keldra::availableMemory;  ///< bytes
    uint64_t fileSize = (uint64_t{2} << 30U) - 3;                         ///< bytes; larger files are not looked at
    uint64_t memberSize = uint64_t{384} << 20U;  ///< bytes; larger files inside others are not looked at
    uint64_t room = uint64_t{400} << 20U;        ///< bytes that all that is unpacked may take on disk at a time
};

/// An engine without a database; `load` or `reload` fetches it.
std::unique_ptr<ScanEngine> makeScanEngine(EngineSettings settings);

}  // namespace keldra
