#include "service/settings/settings_check.h"

#include "norv/custom_action.h"
#include "norv/path_list.h"
#include "norv/protocol/scans.h"
#include "service/base/limits.h"
#include "service/schedules/schedule.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t MAX_TEXT = std::size_t{256} * 1024;
constexpr uint32_t MAX_LAYERS = 20;
/// The engine looks at no file of 2 GiB or more, so a larger limit in MiB means nothing.
constexpr uint32_t MAX_MEMBER_SIZE = 2047;
constexpr int32_t MAX_PERIOD_DAYS = 366;
constexpr int32_t MAX_PERIOD_WEEKS = 53;

bool isControl(unsigned char c) { return c < ' ' || c == 0x7F; }

bool isPlain(const std::string& text) {
    return text.size() <= MAX_TEXT && std::none_of(text.begin(), text.end(), isControl);
}

std::string checkText(const char* field, const std::string& text) {
    return isPlain(text) ? "" : std::string(field) + " is too long or holds control characters.";
}

bool isActionDigit(const std::string& text) { return text.size() == 1 && text[0] >= '0' && text[0] <= '4'; }

bool isTypeName(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    });
}

/// The type names in the text form of a list of actions.
std::vector<std::string> typesOf(const std::string& actions) {
    std::vector<std::string> types;
    for (std::size_t begin = 0; begin < actions.size();) {
        const std::size_t end = std::min(actions.find(',', begin), actions.size());
        const std::string entry = actions.substr(begin, end - begin);
        const std::size_t second = entry.rfind('-');
        if (second != std::string::npos && second > 0) types.push_back(entry.substr(0, entry.rfind('-', second - 1)));
        begin = end + 1;
    }
    return types;
}

/// Entries of types that nothing is ever called are dropped; an action that does not exist is a fault.
std::string checkCustomActions(std::string& text) {
    CustomActionList list(text);
    for (const std::string& type : typesOf(list.toString())) {
        if (!isTypeName(type)) list.removeCustomAction(type);
        const CustomAction action = list.action(type, 0, 0);
        if (!isActionDigit(action.first) || !isActionDigit(action.second)) return "Unknown action for " + type + ".";
    }
    const std::string kept = list.toString();
    if (kept.empty() && !text.empty()) return "The list of actions is malformed.";
    text = kept;
    return {};
}

std::string checkUniverseAction(const std::string& text) {
    if (text.empty()) return {};
    const bool fits =
        text.size() == 3 && text[1] == '-' && isActionDigit(text.substr(0, 1)) && isActionDigit(text.substr(2, 1));
    return fits ? "" : "The action for all types is malformed.";
}

std::string checkFolders(const char* field, std::string& text) {
    if (std::string fault = checkText(field, text); !fault.empty()) return fault;
    std::vector<std::string> folders = splitPathList(text);
    for (std::string& folder : folders) {
        const std::filesystem::path path = std::filesystem::path(folder).lexically_normal();
        if (!path.is_absolute()) return std::string(field) + ": \"" + folder + "\" is not an absolute path.";
        folder = path.has_filename() || path == path.root_path() ? path.string() : path.parent_path().string();
    }
    text = joinPathList(folders);
    return {};
}

/// The first fault of several checks.
std::string firstOf(std::initializer_list<std::string> faults) {
    for (const std::string& fault : faults)
        if (!fault.empty()) return fault;
    return {};
}

std::string checkCommon(NORVScanConfig& record) {
    // People type these on several lines as well; the list is read the same.
    std::replace_if(record.includeExtList.begin(), record.includeExtList.end(), isControl, ' ');
    record.compressionLayer = std::clamp(record.compressionLayer, 1U, MAX_LAYERS);
    record.compressFileSizeLimit = std::min(record.compressFileSizeLimit, MAX_MEMBER_SIZE);
    return firstOf({checkText("The extension list", record.includeExtList), checkCustomActions(record.customActions),
                    checkUniverseAction(record.universeAction), checkFolders("Folders to scan", record.scanPaths),
                    checkFolders("Excluded folders", record.excludePaths),
                    checkText("Excluded names", record.excludePatterns)});
}

std::string twoDigits(int number) { return (number < 10 ? "0" : "") + std::to_string(number); }

/// Brings a time of day into its form. `needed`: the schedule runs at that time.
std::string checkTime(std::string& text, bool needed) {
    if (text.empty() && !needed) return {};
    const auto second = parseTimeOfDay(text);
    if (!second) return "The time of day is malformed.";
    text = twoDigits(*second / 3600) + ":" + twoDigits(*second / 60 % 60) + ":" + twoDigits(*second % 60);
    return {};
}

}  // namespace

std::string checkSettings(NORVManualScanConfig& record) {
    if (record.scanWorkers > protocol::MAX_WORKERS)
        return "At most " + std::to_string(protocol::MAX_WORKERS) + " files can be scanned at a time.";
    return checkCommon(record);
}

std::string checkSettings(NORVRealtimeScanConfig& record) {
    record.scanDirection &= NORVRealtimeScanConfig::INCOMING | NORVRealtimeScanConfig::OUTGOING;
    record.scanTimeLimit = std::max(record.scanTimeLimit, 1U);
    if (record.scanTimeLimit > MAX_SCAN_TIME_LIMIT)
        return "A file can be kept waiting for " + std::to_string(MAX_SCAN_TIME_LIMIT) + " seconds at most.";
    // What runs is told when it is asked for, not stored.
    record.serviceRunning = false;
    record.kernelHookModuleLoaded = false;
    return checkCommon(record);
}

std::string checkSettings(NORVScheduledScanConfig& record) {
    using Record = NORVScheduledScanConfig;
    constexpr std::array<uint32_t, 4> KNOWN{Record::OFF, Record::DAILY, Record::WEEKLY, Record::MONTHLY};
    if (std::find(KNOWN.begin(), KNOWN.end(), record.frequency) == KNOWN.end()) return "Unknown frequency.";
    record.weekDay = std::clamp(record.weekDay, 0, 6);
    // A negative number that was read as an unsigned one is meant as a small one.
    record.monthDay = static_cast<int32_t>(record.monthDay) < 1 ? 1 : std::min(record.monthDay, 31U);
    return firstOf({checkTime(record.time, record.frequency != Record::OFF), checkCommon(record)});
}

std::string checkSettings(NORVScheduledAUConfig& record) {
    using Record = NORVScheduledAUConfig;
    if (record.kind < Record::OFF || record.kind > Record::WEEKLY) return "Unknown kind of schedule.";
    record.components &= UPDATE_VIRUS_PATTERN | UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;
    record.weekDay = std::clamp(record.weekDay, 0, 6);
    if (record.kind == Record::HOURLY) record.period = 0;
    if (record.kind == Record::DAILY) record.period = std::clamp(record.period, 1, MAX_PERIOD_DAYS);
    if (record.kind == Record::WEEKLY) record.period = std::clamp(record.period, 1, MAX_PERIOD_WEEKS);
    return checkTime(record.time, record.kind == Record::DAILY || record.kind == Record::WEEKLY);
}

}  // namespace keldra
