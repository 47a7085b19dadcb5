#include "service/updates/freshclam_plan.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "service/updates/contains_word.h"

#include <algorithm>
#include <array>
#include <optional>

namespace keldra {

namespace {

/// A value of the configuration file, quoted when it has blanks; nothing when it could be read as something else.
std::optional<std::string> configurationWord(const std::string& value) {
    const auto unfit = [](unsigned char c) { return c < ' ' || c == 0x7f || c == '"' || c == '\''; };
    if (value.empty() || value.front() == '#' || std::ranges::any_of(value, unfit)) return std::nullopt;
    return value.find(' ') == std::string::npos ? value : '"' + value + '"';
}

/// Adds a line; what does not fit makes the plan a problem.
void addSetting(FreshclamPlan& plan, const char* name, const std::string& value) {
    const auto word = configurationWord(value);
    if (!word) {
        NORV_LOG(NORV_LOG_ERROR, "The update setting %s has a value that cannot be used", name);
        plan.problem = FreshclamPlan::Problem::BAD_SETTING;
        return;
    }
    plan.configuration += std::string(name) + ' ' + *word + '\n';
}

/// A custom source as freshclam wants it; empty when it is neither a path nor a URL of a kind that it fetches.
std::string customUrl(const std::string& entry) {
    if (entry.starts_with('/')) return "file://" + entry;
    for (const char* scheme : {"file:///", "http://", "https://"})
        if (entry.starts_with(scheme)) return entry;
    return {};
}

std::vector<std::string> selectCustom(const std::vector<std::string>& sources, uint8_t components) {
    const bool separate = std::ranges::any_of(sources, [](const std::string& url) { return isSpywareSource(url); });
    std::vector<std::string> selected;
    for (const std::string& source : sources) {
        const bool spyware = isSpywareSource(source);
        const bool byVirus = (components & UPDATE_VIRUS_PATTERN) != 0 && !spyware;
        const bool bySpyware = (components & UPDATE_SPYWARE_PATTERN) != 0 && (spyware || !separate);
        if (byVirus || bySpyware) selected.push_back(source);
    }
    return selected;
}

void planCustom(FreshclamPlan& plan, const NORVAUConfig& settings, uint8_t components) {
    // A server must be named although none is asked.
    addSetting(plan, "PrivateMirror", "http://127.0.0.1:9");
    for (const std::string& source : selectCustom(splitPathList(settings.customURLs), components)) {
        addSetting(plan, "DatabaseCustomURL", customUrl(source));
        ++plan.expected;
    }
    plan.databases = {"custom"};
    if (plan.expected == 0) plan.problem = FreshclamPlan::Problem::NO_SOURCE;
}

void planOfficial(FreshclamPlan& plan, const NORVAUConfig& settings, uint8_t components) {
    if (settings.source == "mirror")
        addSetting(plan, "PrivateMirror", settings.mirror);
    else
        addSetting(plan, "DatabaseMirror", "database.clamav.net");
    // Named one by one: what is merely excluded would be deleted.
    plan.databases = {"main", "daily"};
    if ((components & UPDATE_VIRUS_PATTERN) != 0) plan.databases.emplace_back("bytecode");
    plan.expected = static_cast<int>(plan.databases.size());
    if (settings.source == "mirror" && settings.mirror.empty()) plan.problem = FreshclamPlan::Problem::NO_SOURCE;
}

void planProxy(FreshclamPlan& plan, const NORVAUConfig& settings) {
    if (settings.proxyServer.empty()) return;
    addSetting(plan, "HTTPProxyServer", settings.proxyServer);
    if (!settings.proxyPort.empty()) addSetting(plan, "HTTPProxyPort", settings.proxyPort);
    if (!settings.proxyUser.empty()) addSetting(plan, "HTTPProxyUsername", settings.proxyUser);
    if (!settings.proxyPassword.empty()) addSetting(plan, "HTTPProxyPassword", settings.proxyPassword);
}

}  // namespace

bool isSpywareSource(std::string_view nameOrUrl) {
    const std::string_view name = nameOrUrl.substr(nameOrUrl.rfind('/') + 1);
    return std::ranges::any_of(std::array<std::string_view, 3>{"spyware", "adware", "pua"},
                               [&](std::string_view word) { return containsWord(name, word); });
}

FreshclamPlan planFreshclam(const NORVAUConfig& settings, uint8_t components, const FreshclamPlaces& places) {
    FreshclamPlan plan;
    addSetting(plan, "DatabaseDirectory", places.signatures);
    addSetting(plan, "DatabaseOwner", places.owner);
    addSetting(plan, "UpdateLogFile", places.log);
    plan.configuration += "LogFileMaxSize 2M\nLogRotate yes\nLogTime yes\nTestDatabases yes\nMaxAttempts 3\n";
    if (settings.source == "custom")
        planCustom(plan, settings, components);
    else
        planOfficial(plan, settings, components);
    planProxy(plan, settings);
    return plan;
}

}  // namespace keldra
