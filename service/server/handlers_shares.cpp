#include "norv/log.h"
#include "norv/path_list.h"
#include "service/base/json_text.h"
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
    const auto wanted = settingsFromText(request.value<std::string>("Settings"));
    const auto before = request.value<std::string>("Expected");
    const auto expected = settingsFromText(before.empty() ? "{}" : before);
    if (!wanted || !expected) return false;
    change = {*wanted, *expected};
    return true;
}

bool refuse(const std::string& message, IPCMessage& reply) {
    NORV_LOG(NORV_LOG_WARNING, "Settings refused: %s", message.c_str());
    reply.addParam("Message", message);
    return false;
}

}  // namespace

bool getSettings(Service& service, const IPCMessage&, IPCMessage& reply) {
    reply.addParam("Settings", settingsText(*service.configuration().snapshot()));
    return true;
}

bool setSettings(Service& service, const IPCMessage& request, IPCMessage& reply) {
    SettingsChange change;
    if (!readChange(request, change)) return refuse("The settings are malformed.", reply);
    std::optional<SettingsFault> fault = missingRoot(change);
    if (fault) return refuse(fault->setting + ": " + fault->text, reply);
    const SaveOutcome outcome = service.configuration().update([&change, &fault](NORVConfig& config) {
        fault = changeSettings(config, change);
        return !fault;
    });
    if (fault) return refuse(fault->setting + ": " + fault->text, reply);
    if (outcome == SaveOutcome::SAVED_WITHOUT_BACKUP) reply.addParam("BackupResult", "DiskFull");
    return saved(outcome) || refuse("The settings could not be saved.", reply);
}

bool listShareProposals(Service&, const IPCMessage&, IPCMessage& reply) {
    JsonText json;
    json.array([&] {
        for (const ShareProposal& proposal : proposeShares()) {
            json.object([&] {
                json.member("path", proposal.path).member("origin", proposal.origin).member("name", proposal.name);
            });
        }
    });
    reply.addParam("Proposals", json.text());
    return true;
}

}  // namespace keldra::handlers
