#include "service/quarantine/actions.h"

#include "norv/custom_action.h"
#include "norv/log.h"
#include "norv/scan_config.h"
#include "service/engine/virus_types.h"
#include "service/quarantine/origin.h"
#include "service/tree/file_transfer.h"

#include <array>
#include <cerrno>
#include <optional>

namespace keldra {

namespace {

constexpr std::size_t LONGEST_NAME = 255;
constexpr int MOST_NAMES = 1000;
constexpr std::string_view SUFFIX = ".infected";
constexpr std::array<const char*, 5> NAMES{"pass", "delete", "quarantine", "clean", "rename"};

const char* nameOf(Action action) { return NAMES.at(static_cast<std::size_t>(action)); }

std::optional<Action> actionOf(const std::string& digit) {
    if (digit.size() != 1 || digit[0] < '0' || digit[0] > '4') return std::nullopt;
    return static_cast<Action>(digit[0] - '0');
}

/// A plan from two stored digits; nothing when one of them is none.
std::optional<ActionPlan> planOf(const std::string& first, const std::string& second) {
    const std::optional<Action> one = actionOf(first);
    const std::optional<Action> two = actionOf(second);
    if (!one || !two) return std::nullopt;
    return ActionPlan{*one, *two};
}

std::optional<ActionPlan> planOf(const std::string& pair) {
    const std::size_t dash = pair.find('-');
    return dash == std::string::npos ? std::nullopt : planOf(pair.substr(0, dash), pair.substr(dash + 1));
}

/// What one action came to.
struct Attempt {
    bool done = false;
    std::string text;
    bool full = false;  ///< the quarantine has no room
};

Attempt failed(std::string why) { return {false, std::move(why), false}; }

Attempt deleteFile(Quarantine& quarantine, const ScannedFile& file, const QuarantineReason& reason) {
    const QuarantineResult result = quarantine.destroy(file, reason);
    return result.done ? Attempt{true, "deleted", false} : failed(result.message);
}

/// Whether a name is one that `renameFile` gives.
bool isRenamed(std::string_view name) {
    const std::size_t end = name.find_last_not_of("0123456789");
    return end != std::string_view::npos && name.size() - end <= 4 && name.substr(0, end + 1).ends_with(SUFFIX);
}

/// At most so many bytes of a name, without cutting a character of UTF-8 apart.
std::string beginningOf(const std::string& name, std::size_t most) {
    const auto continues = [&name](std::size_t at) { return (static_cast<unsigned char>(name[at]) & 0xc0U) == 0x80U; };
    if (name.size() <= most) return name;
    std::size_t length = most;
    while (length + 3 > most && continues(length)) --length;
    return name.substr(0, length);
}

/// "name.infected", and with a number behind it where that is taken.
Attempt renameFile(const ScannedFile& file) {
    if (isRenamed(file.name)) return {true, "left under its changed name", false};
    const std::string stem = beginningOf(file.name, LONGEST_NAME - SUFFIX.size() - 4) + std::string(SUFFIX);
    for (int i = 0; i < MOST_NAMES; ++i) {
        const std::string name = i == 0 ? stem : stem + std::to_string(i);
        if (renameExactly(file, file.folder->get(), name)) return {true, "renamed to " + name, false};
        if (errno != EEXIST) return failed(explainChange(errno, file.file.get(), file.folder->get()));
    }
    return failed(errorText(EEXIST));
}

Attempt quarantineFile(Quarantine& quarantine, const ScannedFile& file, const QuarantineReason& reason) {
    const QuarantineResult result = quarantine.take(file, reason);
    if (!result.done) return {false, result.message, result.full};
    return {true, "moved to quarantine", false};
}

/// The engine can tell that a file is infected but cannot take the infection out.
Attempt cleanFile(Quarantine& quarantine, const ScannedFile& file, const QuarantineReason& reason, bool backup) {
    std::string text = "cannot be cleaned";
    if (backup) {
        const QuarantineResult kept = quarantine.backup(file, reason);
        text += kept.done ? ", a backup copy was kept" : ", no backup copy could be made (" + kept.message + ")";
    }
    return failed(text);
}

Attempt attempt(Action action, Quarantine& quarantine, const ScannedFile& file, const QuarantineReason& reason,
                bool backup) {
    switch (action) {
        case Action::PASS:
            return {true, "left in place", false};
        case Action::DELETE:
            return deleteFile(quarantine, file, reason);
        case Action::QUARANTINE:
            return quarantineFile(quarantine, file, reason);
        case Action::CLEAN:
            return cleanFile(quarantine, file, reason, backup);
        case Action::RENAME:
            return renameFile(file);
    }
    return failed("unknown action");
}

ActionOutcome outcomeOf(Action action, const Attempt& attempt, const std::string& before) {
    ActionOutcome outcome;
    outcome.done = attempt.done;
    outcome.performed = action;
    outcome.text = before;
    const bool said = attempt.done || action == Action::CLEAN;
    outcome.text += said ? attempt.text : std::string(nameOf(action)) + " failed: " + attempt.text;
    return outcome;
}

}  // namespace

ActionPlan recommendedActions(std::string_view type) {
    const CustomAction recommended = recommendedAction(std::string(type));
    return planOf(recommended.first, recommended.second).value_or(ActionPlan{});
}

ActionPlan actionPlanOf(const NORVScanConfig& settings, std::string_view type) {
    const ActionPlan recommended = recommendedActions(type);
    if (!settings.customActions.empty()) {
        const CustomAction entry =
            CustomActionList(settings.customActions)
                .action(std::string(type), static_cast<int>(recommended.first), static_cast<int>(recommended.second));
        return planOf(entry.first, entry.second).value_or(recommended);
    }
    if (!settings.universeAction.empty()) return planOf(settings.universeAction).value_or(recommended);
    return recommended;
}

ActionPlan actionsOn(const std::string& signature, const NORVScanConfig& settings) {
    return actionPlanOf(settings, virusTypeOf(signature));
}

ActionOutcome Actions::perform(const ScannedFile& file, const ScanResult& result, const NORVScanConfig& settings,
                               const std::string& task) {
    ActionOutcome outcome;
    if (result.verdict != Verdict::INFECTED) return outcome;
    const QuarantineReason reason{result.signature, virusTypeOf(result.signature), task};
    const ActionPlan plan = actionsOn(result.signature, settings);
    // A file that goes to quarantine next is its own backup.
    const bool backup = settings.backupBeforeClean && plan.second != Action::QUARANTINE;
    const bool touches = plan.first != Action::PASS || plan.second != Action::PASS;
    const std::shared_ptr<void> underWay = touches && begin_ ? begin_(file) : nullptr;
    bool full = false;
    const auto tryNext = [&](Action action) {
        const std::string before = outcome.text.empty() ? "" : outcome.text + "; ";
        const Attempt attempted = attempt(action, quarantine_, file, reason, backup);
        full = full || attempted.full;
        outcome = outcomeOf(action, attempted, before);
    };
    tryNext(plan.first);
    // A file that was to be put away and found no room does not stay as it was.
    if (!outcome.done && plan.second != plan.first && !(full && plan.second == Action::PASS)) tryNext(plan.second);
    if (!outcome.done && full) tryNext(Action::RENAME);
    NORV_LOG(NORV_LOG_WARNING, "%s in %s: %s", result.signature.c_str(), file.path.c_str(), outcome.text.c_str());
    return outcome;
}

}  // namespace keldra
