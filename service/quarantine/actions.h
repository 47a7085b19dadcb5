#pragma once

#include "service/engine/scan_engine.h"
#include "service/quarantine/quarantine.h"
#include "service/tree/scanned_file.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

struct NORVScanConfig;

namespace keldra {

/// What can be done with a find; the numbers are the stored digits.
enum class Action { PASS = 0, DELETE = 1, QUARANTINE = 2, CLEAN = 3, RENAME = 4 };

/// The action to try first, and the one for when it fails.
struct ActionPlan {
    Action first = Action::PASS;
    Action second = Action::PASS;
};

/// What the settings say about finds of a type: the one action for all types, else the entry of the type, else the
/// recommended actions of the type.
ActionPlan actionPlanOf(const NORVScanConfig& settings, std::string_view type);

/// The recommended actions of a type.
ActionPlan recommendedActions(std::string_view type);

/// What is to be done with a find of this name: PASS first means that it may stay and be used.
ActionPlan actionsOn(const std::string& signature, const NORVScanConfig& settings);

/// What became of a find.
struct ActionOutcome {
    bool done = false;                ///< whether one of the two actions succeeded
    Action performed = Action::PASS;  ///< the one that succeeded, else the last one tried
    std::string text;                 ///< English, for the log and for people
};

/// Does to a find what the settings say; one for which the quarantine has no room is renamed instead. May be used from
/// any thread.
class Actions {
public:
    /// Told before something is done to an infected file, wherever it was found; what it returns is held until that is
    /// over.
    using Begin = std::function<std::shared_ptr<void>(const ScannedFile& file)>;

    explicit Actions(Quarantine& quarantine) : quarantine_(quarantine) {}

    /// To be called before any action.
    void onBegin(Begin begin) { begin_ = std::move(begin); }

    /// Only INFECTED leads to an action; with every other verdict nothing is touched. `task`: the id of the scan.
    ActionOutcome perform(const ScannedFile& file, const ScanResult& result, const NORVScanConfig& settings,
                          const std::string& task);

private:
    Quarantine& quarantine_;
    Begin begin_;
};

}  // namespace keldra
