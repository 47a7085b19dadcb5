#include "service/settings/settings_table.h"

#include "norv/json_value.h"
#include "norv/path_list.h"
#include "service/base/paths.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t MAX_LINE = 1024;
constexpr std::size_t MAX_LIST = std::size_t{64} * 1024;
constexpr std::size_t MAX_HOUR = 24;
constexpr std::size_t MAX_MINUTE = 60;

using enum SettingKind;

constexpr std::array SETTINGS{
    Setting{.name = "shares.roots",
            .category = "Configuration",
            .key = "ShareRoots",
            .kind = FOLDERS,
            .fallback = "",
            .about = "The folders that may be scanned, with all below them."},
    Setting{.name = "limits.manual_workers",
            .category = "ManualScan",
            .key = "scanWorkers",
            .kind = NUMBER,
            .fallback = "0",
            .least = 0,
            .most = 32,
            .about = "How many files a manual scan looks into at a time; 0 lets the service decide."},
    Setting{.name = "limits.realtime_wait",
            .category = "RealtimeScan",
            .key = "scanTimeLimit",
            .kind = NUMBER,
            .fallback = "10",
            .least = 1,
            .most = 300,
            .unit = "seconds",
            .about = "How long whoever opens a file may have to wait for its scan."},
    Setting{.name = "limits.realtime_refuse",
            .category = "RealtimeScan",
            .key = "denyOnTimeout",
            .kind = SWITCH,
            .fallback = "0",
            .about = "Refuse to open a file whose scan takes longer than that, instead of letting it be opened."},
    Setting{.name = "limits.unpacked_megabytes",
            .category = "ScanLimits",
            .key = "UnpackedMegabytes",
            .kind = NUMBER,
            .fallback = "4096",
            .least = 1,
            .most = 65536,
            .unit = "MiB",
            .about = "How much a scan unpacks from one file, in all; what is beyond is not scanned, and that is told."},
    Setting{.name = "limits.members",
            .category = "ScanLimits",
            .key = "Members",
            .kind = NUMBER,
            .fallback = "100000",
            .least = 1,
            .most = 10000000,
            .about = "How many files within one file a scan looks into."},
    Setting{.name = "limits.seconds",
            .category = "ScanLimits",
            .key = "Seconds",
            .kind = NUMBER,
            .fallback = "300",
            .least = 1,
            .most = 600,
            .unit = "seconds",
            .about = "How long a scan works on one file."},
    Setting{.name = "limits.realtime_unpacked_megabytes",
            .category = "ScanLimits",
            .key = "RealtimeUnpackedMegabytes",
            .kind = NUMBER,
            .fallback = "128",
            .least = 1,
            .most = 65536,
            .unit = "MiB",
            .about = "How much the real-time scan unpacks from one file, in all."},
    Setting{.name = "limits.realtime_members",
            .category = "ScanLimits",
            .key = "RealtimeMembers",
            .kind = NUMBER,
            .fallback = "5000",
            .least = 1,
            .most = 10000000,
            .about = "How many files within one file the real-time scan looks into."},
    Setting{.name = "limits.realtime_seconds",
            .category = "ScanLimits",
            .key = "RealtimeSeconds",
            .kind = NUMBER,
            .fallback = "120",
            .least = 1,
            .most = 600,
            .unit = "seconds",
            .about = "How long the real-time scan works on one file, also when nobody waits for it any more."},
    Setting{.name = "limits.scheduled_low_priority",
            .category = "ScheduledScan",
            .key = "lowPriority",
            .kind = SWITCH,
            .fallback = "1",
            .about = "Let other programs go first while a scheduled scan runs."},
    Setting{.name = "limits.scheduled_from",
            .category = "ScheduledScan",
            .key = "windowBegin",
            .kind = TIME,
            .fallback = "",
            .about = "From what time of day on a scheduled scan may work; outside of its time it is paused."},
    Setting{.name = "limits.scheduled_until",
            .category = "ScheduledScan",
            .key = "windowEnd",
            .kind = TIME,
            .fallback = "",
            .about = "Until what time of day a scheduled scan may work; before the beginning: over midnight."},
    Setting{.name = "quarantine.megabytes",
            .category = "Quarantine",
            .key = "MaxMegabytes",
            .kind = NUMBER,
            .fallback = "10240",
            .least = 0,
            .most = 4000000,
            .unit = "MiB",
            .about = "How much all files in quarantine may take; 0 for no limit."},
    Setting{.name = "quarantine.files",
            .category = "Quarantine",
            .key = "MaxFiles",
            .kind = NUMBER,
            .fallback = "100000",
            .least = 0,
            .most = 10000000,
            .about = "How many files may lie in quarantine; 0 for no limit."},
    Setting{.name = "quarantine.days",
            .category = "Quarantine",
            .key = "MaxDays",
            .kind = NUMBER,
            .fallback = "180",
            .least = 0,
            .most = 36500,
            .unit = "days",
            .about = "After how many days a file in quarantine is removed for good; 0 for never."},
    Setting{.name = "quarantine.announce",
            .category = "Quarantine",
            .key = "AnnounceDays",
            .kind = NUMBER,
            .fallback = "7",
            .least = 1,
            .most = 365,
            .unit = "days",
            .about = "For how many days a removal is announced before it happens."},
    Setting{.name = "clients.enabled",
            .category = "Clients",
            .key = "Enabled",
            .kind = SWITCH,
            .fallback = "0",
            .about = "Let other programs have files scanned."},
    Setting{.name = "clients.every_user",
            .category = "Clients",
            .key = "EveryUser",
            .kind = SWITCH,
            .fallback = "0",
            .about = "Let every local user connect."},
    Setting{.name = "clients.group",
            .category = "Clients",
            .key = "Group",
            .kind = TEXT,
            .fallback = "",
            .about = "The group that may connect; empty for the own group of the service only."},
    Setting{.name = "clients.refuse_incomplete",
            .category = "Clients",
            .key = "RefuseIncomplete",
            .kind = SWITCH,
            .fallback = "0",
            .about = "Answer with an error where a file could not be scanned fully."},
    Setting{.name = "clients.stream_limit",
            .category = "Clients",
            .key = "StreamLimit",
            .kind = NUMBER,
            .fallback = "100",
            .least = 1,
            .most = 2047,
            .unit = "MiB",
            .about = "The largest file that other programs may send."},
    Setting{.name = "updates.source",
            .category = "Varnel",
            .key = "Source",
            .kind = CHOICE,
            .fallback = "official",
            .choices = "official|mirror|custom",
            .about = "Where signatures are fetched from."},
    Setting{.name = "updates.mirror",
            .category = "Varnel",
            .key = "Mirror",
            .kind = TEXT,
            .fallback = "",
            .about = "The address of a private mirror, such as http://mirror.example."},
    Setting{.name = "updates.custom",
            .category = "Varnel",
            .key = "CustomURLs",
            .kind = SOURCES,
            .fallback = "",
            .about = "Files and addresses of the custom source."},
    Setting{.name = "updates.random_minute",
            .category = "Varnel",
            .key = "RandomizedUpdate",
            .kind = SWITCH,
            .fallback = "0",
            .about = "Start scheduled updates at a random minute within the hour."},
    Setting{.name = "updates.proxy_server",
            .category = "Varnel",
            .key = "ProxyServer",
            .kind = TEXT,
            .fallback = "",
            .about = "The web proxy through which updates are fetched; empty for none."},
    Setting{.name = "updates.proxy_port",
            .category = "Varnel",
            .key = "ProxyPort",
            .kind = NUMBER,
            .fallback = "",
            .least = 1,
            .most = 65535,
            .about = "The port of the proxy."},
    Setting{.name = "updates.proxy_user",
            .category = "Varnel",
            .key = "ProxyUser",
            .kind = TEXT,
            .fallback = "",
            .about = "The user name for the proxy; empty for none."},
    Setting{.name = "updates.proxy_password",
            .category = "Varnel",
            .key = "ProxyPassword",
            .kind = SECRET,
            .fallback = "",
            .about = "The password for the proxy."},
};

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; }

std::string checkLine(const std::string& value, std::size_t longest) {
    if (value.size() > longest) return "The text is too long.";
    return std::any_of(value.begin(), value.end(), isControl) ? "The text holds control characters." : "";
}

std::string checkNumber(const Setting& setting, std::string& value) {
    if (value.empty() && setting.fallback[0] == '\0') return {};
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    const bool whole = error == std::errc() && end == value.data() + value.size();
    if (!whole || number < setting.least || number > setting.most) {
        return "Must be a whole number from " + std::to_string(setting.least) + " to " + std::to_string(setting.most) +
               ".";
    }
    value = std::to_string(number);
    return {};
}

std::string checkSwitch(std::string& value) {
    if (value == "true" || value == "on") value = "1";
    if (value == "false" || value == "off" || value.empty()) value = "0";
    return value == "0" || value == "1" ? "" : "Must be on or off.";
}

std::string checkChoice(const Setting& setting, const std::string& value) {
    const std::string all = std::string("|") + setting.choices + "|";
    if (!value.empty() && value.find('|') == std::string::npos && all.find("|" + value + "|") != std::string::npos)
        return {};
    std::string list = setting.choices;
    for (std::size_t at = list.find('|'); at != std::string::npos; at = list.find('|', at)) list.replace(at, 1, ", ");
    return "Must be one of: " + list + ".";
}

bool isAddress(const std::string& entry) {
    return std::ranges::any_of(std::array{"http://", "https://", "file:///"},
                               [&entry](const char* scheme) { return entry.starts_with(scheme); });
}

std::string checkList(const Setting& setting, std::string& value) {
    if (std::string fault = checkLine(value, MAX_LIST); !fault.empty()) return fault;
    std::vector<std::string> entries = splitPathList(value);
    for (const std::string& entry : entries) {
        if (entry.starts_with('/') || (setting.kind == SOURCES && isAddress(entry))) continue;
        return "\"" + entry + "\" is not an absolute path" + (setting.kind == SOURCES ? " or an address." : ".");
    }
    if (setting.kind == FOLDERS) entries = normalPaths(entries);
    value = joinPathList(entries);
    return {};
}

std::string checkTime(const std::string& value) {
    const auto below = [&value](std::size_t at, std::size_t limit) {
        std::size_t number = 0;
        const auto [end, error] = std::from_chars(value.data() + at, value.data() + at + 2, number);
        return error == std::errc() && end == value.data() + at + 2 && number < limit;
    };
    const bool fits =
        value.empty() || (value.size() == 5 && value[2] == ':' && below(0, MAX_HOUR) && below(3, MAX_MINUTE));
    return fits ? "" : "Must be a time such as 03:30.";
}

std::string storedValue(const NORVConfig& config, const Setting& setting) {
    std::string value = configValueOr(config, setting.category, setting.key, std::string(setting.fallback));
    // The document may hold what its own records write.
    if (setting.kind == SWITCH && checkSwitch(value).empty()) return value;
    return value;
}

}  // namespace

std::span<const Setting> settingsTable() { return SETTINGS; }

const Setting* findSetting(std::string_view name) {
    const auto* const found =
        std::find_if(SETTINGS.begin(), SETTINGS.end(), [name](const Setting& setting) { return name == setting.name; });
    return found == SETTINGS.end() ? nullptr : found;
}

std::string settingValue(const NORVConfig& config, const Setting& setting) {
    std::string value = storedValue(config, setting);
    if (setting.kind != SECRET) return value;
    return value.empty() ? "" : "1";
}

std::string checkSetting(const Setting& setting, std::string& value) {
    switch (setting.kind) {
        case NUMBER:
            return checkNumber(setting, value);
        case SWITCH:
            return checkSwitch(value);
        case CHOICE:
            return checkChoice(setting, value);
        case FOLDERS:
        case SOURCES:
            return checkList(setting, value);
        case TIME:
            return checkTime(value);
        case TEXT:
        case SECRET:
            break;
    }
    return checkLine(value, MAX_LINE);
}

std::optional<SettingsFault> changeSettings(NORVConfig& config, const SettingsChange& change) {
    std::map<const Setting*, std::string> values;
    for (const auto& [name, wanted] : change.wanted) {
        const Setting* const setting = findSetting(name);
        if (!setting) return SettingsFault{name, "There is no such setting."};
        std::string value = wanted;
        if (std::string fault = checkSetting(*setting, value); !fault.empty()) return SettingsFault{name, fault};
        const auto expected = change.expected.find(name);
        const std::string now = settingValue(config, *setting);
        if (expected != change.expected.end() && expected->second != now && value != now)
            return SettingsFault{name, "Somebody has changed this setting meanwhile."};
        values.emplace(setting, value);
    }
    for (const auto& [setting, value] : values) config.setValue(setting->category, setting->key, value);
    return std::nullopt;
}

std::vector<protocol::ServiceSetting> describeSettings(const NORVConfig& config) {
    constexpr std::array KINDS{"number", "switch", "choice", "text", "secret", "folders", "sources", "time"};
    std::vector<protocol::ServiceSetting> settings;
    settings.reserve(SETTINGS.size());
    for (const Setting& setting : SETTINGS) {
        settings.push_back({.name = setting.name,
                            .kind = KINDS.at(static_cast<std::size_t>(setting.kind)),
                            .value = settingValue(config, setting),
                            .fallback = setting.fallback,
                            .least = setting.least,
                            .most = setting.most,
                            .choices = setting.choices,
                            .unit = setting.unit,
                            .about = setting.about});
    }
    return settings;
}

std::optional<std::map<std::string, std::string>> settingsFromText(const std::string& text) {
    const JsonDocument document = parseJson(text);
    if (!document.IsObject()) return std::nullopt;
    std::map<std::string, std::string> values;
    for (const auto& member : document.GetObject()) {
        if (!member.value.IsString()) return std::nullopt;
        values.emplace(std::string(member.name.GetString(), member.name.GetStringLength()),
                       std::string(member.value.GetString(), member.value.GetStringLength()));
    }
    return values;
}

}  // namespace keldra
