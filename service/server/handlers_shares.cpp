#include "norv/log.h"
#include "norv/path_list.h"
#include "norv/protocol/service_settings.h"
#include "service/server/handlers.h"
#include "service/server/service.h"
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

bool getSettings(Service& service, const IPCMessage&, IPCMessage& reply) {
    write(reply, protocol::ServiceSettings{describeSettings(*service.configuration().snapshot())});
    return true;
}

bool setSettings(Service& service, const IPCMessage& request, IPCMessage& reply) {
    SettingsChange change;
    if (!readChange(request, change)) return refuseLogged("The settings are malformed.", reply);
    std::optional<SettingsFault> fault = missingRoot(change);
    if (fault) return refuseLogged(fault->setting + ": " + fault->text, reply);
    const SaveOutcome outcome = service.configuration().update([&change, &fault](NORVConfig& config) {
        fault = changeSettings(config, change);
        return !fault;
    });
    if (fault) return refuseLogged(fault->setting + ": " + fault->text, reply);
    if (!saved(outcome)) return refuseLogged("The settings could not be saved.", reply);
    protocol::SettingsSaved answer;
    if (outcome == SaveOutcome::SAVED_WITHOUT_BACKUP) answer.backupResult = protocol::SettingsSaved::DISK_FULL;
    write(reply, answer);
    return true;
}

bool listShareProposals(Service&, const IPCMessage&, IPCMessage& reply) {
    protocol::ProposedShares shares;
    for (const ShareProposal& share : proposeShares())
        shares.proposals.push_back({share.path, share.origin, share.name});
    write(reply, shares);
    return true;
}

}  // namespace keldra::handlers
