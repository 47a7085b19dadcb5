#include "norv/log.h"
#include "norv/path_list.h"
#include "norv/protocol/service_settings.h"
#include "service/server/chronicle.h"
#include "service/server/folder_questions.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"
#include "service/settings/settings_table.h"
#include "service/tree/share_proposals.h"

#include <filesystem>
#include <system_error>

namespace keldra::handlers {

namespace {

/// A root that is not there would never be scanned, and nobody would notice.
std::optional<SettingsFault> missingRoot(const SettingsChange& change) {
    const auto roots = change.wanted.find("shares.roots");
    if (roots == change.wanted.end()) return std::nullopt;
    for (const std::string& root : splitPathList(roots->second)) {
        std::error_code error;
        if (!std::filesystem::is_directory(root, error))
            return SettingsFault{"shares.roots", "There is no such folder: " + root};
    }
    return std::nullopt;
}

bool readChange(const IPCMessage& request, SettingsChange& change) {
    const auto asked = protocol::read<protocol::SetServiceSettings>(request);
    const auto wanted = settingsFromText(asked.settings);
    const auto expected = settingsFromText(asked.expected.empty() ? "{}" : asked.expected);
    if (!wanted || !expected) return false;
    change = {*wanted, *expected};
    return true;
}

bool refuseLogged(const std::string& message, IPCMessage& reply) {
    NORV_LOG(NORV_LOG_WARNING, "Settings refused: %s", message.c_str());
    return refuse(message, reply);
}

}  // namespace

bool getSettings(ConfigurationStore& configuration, const Caller& caller, const IPCMessage& request,
                 IPCMessage& reply) {
    const auto config = configuration.snapshot();
    protocol::ServiceSettings described{describeSettings(*config)};
    if (caller.owner && protocol::read<protocol::GetServiceSettings>(request).secrets) {
        for (protocol::ServiceSetting& one : described.settings) {
            const Setting* const setting = findSetting(one.name);
            if (setting && setting->kind == SettingKind::SECRET)
                one.value = configValueOr(*config, setting->category, setting->key, std::string());
        }
    }
    write(reply, described);
    return true;
}

bool setSettings(ConfigurationStore& configuration, FolderQuestions& folders, const Caller& caller,
                 const IPCMessage& request, IPCMessage& reply) {
    SettingsChange change;
    if (!readChange(request, change)) return refuseLogged("The settings are malformed.", reply);
    const std::string unfit = folders.ask([change] {
        const std::optional<SettingsFault> fault = missingRoot(change);
        return fault ? fault->setting + ": " + fault->text : std::string();
    });
    if (!unfit.empty()) return refuseLogged(unfit, reply);
    std::optional<SettingsFault> fault;
    const auto lay = [&change, &fault](NORVConfig& config) {
        fault = changeSettings(config, change);
        return !fault;
    };
    const SaveResult result = configuration.update(lay, actorOf(caller));
    if (fault) return refuseLogged(fault->setting + ": " + fault->text, reply);
    if (!saved(result.outcome)) return refuseLogged(result.reason, reply);
    protocol::SettingsSaved answer;
    if (result.outcome == SaveOutcome::SAVED_WITHOUT_BACKUP) answer.backupResult = protocol::SettingsSaved::DISK_FULL;
    write(reply, answer);
    return true;
}

bool listShareProposals(IPCMessage& reply) {
    protocol::ProposedShares shares;
    for (const ShareProposal& share : proposeShares())
        shares.proposals.push_back({share.path, share.origin, share.name});
    write(reply, shares);
    return true;
}

}  // namespace keldra::handlers
