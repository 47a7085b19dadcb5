#include "service/quarantine/actions.h"

#include "norv/custom_action.h"
#include "norv/log.h"
#include "norv/scan_config.h"
#include "service/engine/virus_types.h"
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
};

Attempt failed(std::string why) { return {false, std::move(why)}; }

Attempt deleteFile(const ScannedFile& file) {
    const std::string passing = ".keldra-" + randomName();
    if (!removeExactly(file, passing)) return failed(errorText(errno));
    return {true, "deleted"};
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
    if (isRenamed(file.name)) return {true, "left under its changed name"};
    const std::string stem = beginningOf(file.name, LONGEST_NAME - SUFFIX.size() - 4) + std::string(SUFFIX);
    for (int i = 0; i < MOST_NAMES; ++i) {
        const std::string name = i == 0 ? stem : stem + std::to_string(i);
        if (renameExactly(file, file.folder->get(), name)) return {true, "renamed to " + name};
        if (errno != EEXIST) return failed(errorText(errno));
    }
    return failed(errorText(EEXIST));
}

Attempt quarantineFile(Quarantine& quarantine, const ScannedFile& file, const QuarantineReason& reason) {
    const QuarantineResult result = quarantine.take(file, reason);
    if (!result.done) return failed(result.message);
    return {true, "moved to quarantine"};
}

/// The engine can tell that a file is infected but cannot take the infection out.
Attempt cleanFile(Quarantine& quarantine, const ScannedFile& file, const QuarantineReason& reason, bool backup) {
    std::string text = "the engine cannot clean files";
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
            return {true, "left in place"};
        case Action::DELETE:
            return deleteFile(file);
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
    outcome.text += attempt.done ? attempt.text : std::string(nameOf(action)) + " failed: " + attempt.text;
    return outcome;
}

}  // namespace

ActionPlan recommendedActions(std::string_view type) {
    struct Row {
        std::string_view type;
        ActionPlan plan;
    };
    static constexpr std::array ROWS{
        Row{"Joke", {Action::QUARANTINE, Action::PASS}}, Row{"Trojan", {Action::QUARANTINE, Action::PASS}},
        Row{"Virus", {Action::CLEAN, Action::QUARANTINE}}, Row{"Test_Virus", {Action::PASS, Action::PASS}},
        Row{"Spyware", {Action::QUARANTINE, Action::PASS}}};
    for (const Row& row : ROWS) {
        if (row.type == type) return row.plan;
    }
    return {Action::CLEAN, Action::QUARANTINE};
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

ActionOutcome Actions::perform(const ScannedFile& file, const ScanResult& result, const NORVScanConfig& settings,
                               const std::string& task) {
    ActionOutcome outcome;
    if (result.verdict != Verdict::INFECTED) return outcome;
    const QuarantineReason reason{result.signature, virusTypeOf(result.signature), task};
    const ActionPlan plan = actionPlanOf(settings, reason.type);
    // A file that goes to quarantine next is its own backup.
    const bool backup = settings.backupBeforeClean && plan.second != Action::QUARANTINE;
    outcome = outcomeOf(plan.first, attempt(plan.first, quarantine_, file, reason, backup), "");
    if (!outcome.done && plan.second != plan.first) {
        const std::string before = outcome.text + "; ";
        outcome = outcomeOf(plan.second, attempt(plan.second, quarantine_, file, reason, backup), before);
    }
    NORV_LOG(NORV_LOG_WARNING, "%s in %s: %s", result.signature.c_str(), file.path.c_str(), outcome.text.c_str());
    return outcome;
}

}  // namespace keldra
