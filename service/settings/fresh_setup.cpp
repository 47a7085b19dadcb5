#include "service/settings/fresh_setup.h"

#include "norv/au_config.h"
#include "norv/crypto.h"
#include "norv/norv_config.h"
#include "norv/path_list.h"
#include "norv/scan_config.h"
#include "service/base/files.h"

#include <cerrno>
#include <system_error>

namespace keldra {

namespace {

constexpr unsigned long KEY_BYTES = 32;
constexpr uint32_t FRESH_LAYERS = 5;

template <typename Record>
Record freshScan(const FreshSetup& setup) {
    Record record;
    record.scanCompressed = true;
    record.compressionLayer = FRESH_LAYERS;
    record.backupBeforeClean = true;
    record.scanPaths = joinPathList(setup.scanPaths);
    return record;
}

void putScans(NORVConfig& config, const FreshSetup& setup) {
    storeRecord(config, freshScan<NORVManualScanConfig>(setup));
    storeRecord(config, freshScan<NORVRealtimeScanConfig>(setup));
    auto scheduled = freshScan<NORVScheduledScanConfig>(setup);
    scheduled.time = "02:00:00";
    storeRecord(config, scheduled);
}

void putUpdates(NORVConfig& config) {
    NORVManualAUConfig manual;
    manual.components = UPDATE_VIRUS_PATTERN | UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;
    storeRecord(config, manual);
    NORVScheduledAUConfig scheduled;
    scheduled.components = manual.components;
    scheduled.time = "03:00:00";
    storeRecord(config, scheduled);
    config.setValue("Varnel", "RandomizedUpdate", "1");
    config.setValue("Varnel", "Source", "official");
}

std::string freshDocument(const FreshSetup& setup) {
    NORVConfig config;
    config.setValue("Configuration", "VarPath", setup.var.string());
    config.setValue("Configuration", "ConsoleUser", "admin");
    config.setValue("Configuration", "ShareRoots", joinPathList(setup.scanPaths));
    putScans(config, setup);
    putUpdates(config);
    return config.toText();
}

std::string freshKey() {
    std::vector<unsigned char> bytes;
    return getRandomBytes(KEY_BYTES, bytes) ? bin2hex(bytes) + "\n" : "";
}

bool isThere(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

/// Makes one file unless it is there. Returns what failed.
template <typename Content>
std::string makeFile(const std::filesystem::path& path, Content content, std::vector<std::string>& report) {
    if (isThere(path)) {
        report.push_back("kept " + path.string());
        return {};
    }
    if (path.has_parent_path() && !isThere(path.parent_path()) && !makeFolder(path.parent_path(), 0750))
        return path.parent_path().string() + ": " + errorText(errno);
    const std::string text = content();
    if (text.empty()) return path.string() + ": no content could be made";
    const WriteResult result = writeFileAtomically(path, text, 0640);
    if (!result) return path.string() + ": " + errorText(result.error);
    report.push_back("made " + path.string());
    return {};
}

std::string makeOneFolder(const std::filesystem::path& path, mode_t mode, std::vector<std::string>& report) {
    if (isThere(path)) {
        report.push_back("kept " + path.string());
        return {};
    }
    if (!makeFolder(path, mode)) return path.string() + ": " + errorText(errno);
    report.push_back("made " + path.string());
    return {};
}

}  // namespace

std::string makeFreshSetup(const FreshSetup& setup, std::vector<std::string>& report) {
    std::string fault = makeOneFolder(setup.state, 0700, report);
    if (fault.empty()) fault = makeOneFolder(setup.var, 02770, report);
    if (fault.empty())
        fault = makeFile(
            setup.config, [&setup] { return freshDocument(setup); }, report);
    if (fault.empty()) fault = makeFile(setup.key, freshKey, report);
    return fault;
}

}  // namespace keldra
