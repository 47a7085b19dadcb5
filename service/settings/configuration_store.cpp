#include "service/settings/configuration_store.h"

#include "service/base/files.h"

#include <sys/stat.h>
#include <tinyxml2.h>

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

namespace keldra {

namespace {

/// Largest document that is read: far beyond any real one, far below what a message can carry.
constexpr std::size_t MAX_DOCUMENT = std::size_t{4} << 20U;
constexpr mode_t DOCUMENT_MODE = 0640;

std::string faultOf(const NORVConfig& config) {
    if (!config.parsed()) return config.parseError();
    if (!config.document().FirstChildElement("Document")) return "there is no element \"Document\"";
    return {};
}

}  // namespace

ConfigurationStore::ConfigurationStore(std::filesystem::path file, const Clock& clock)
    : file_(std::move(file)),
      clock_(clock),
      state_(std::make_shared<const State>(State{.good = std::make_shared<const NORVConfig>()})) {}

void ConfigurationStore::onChange(std::function<void(const ConfigurationChange&)> listener) {
    listener_ = std::move(listener);
}

ConfigurationStore::Identity ConfigurationStore::identify(const std::filesystem::path& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size), status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

bool ConfigurationStore::refresh() {
    const Identity identity = identify(file_);
    const StatePtr known = state();
    if (known->loaded && identity == known->identity) return known->error.empty();
    // Whoever holds it is about to publish what is new.
    std::unique_lock lock(writing_, std::try_to_lock);
    if (!lock) return known->error.empty();
    const auto before = state()->good;
    const bool changed = readAgain(identify(file_));
    const auto after = state()->good;
    lock.unlock();
    if (changed && listener_) listener_({.byHand = true, .before = before, .after = after});
    return state()->error.empty();
}

/// Reads the file unless it is the one that was read last. True when there is another good document now.
bool ConfigurationStore::readAgain(const Identity& identity) {
    State next = *state();
    if (next.loaded && identity == next.identity) return false;
    next.identity = identity;
    next.loaded = true;
    int error = 0;
    const auto text = readFile(file_, MAX_DOCUMENT, error);
    if (!text) {
        next.loaded = false;  // what keeps a file from being read may pass without a trace on it
        return fail(std::move(next), errorText(error));
    }

    // A file set back in time is newer all the same: pages that show the old one must notice.
    next.stamp = std::max(identity.seconds, next.stamp + (identity.seconds < next.stamp ? 1 : 0));
    auto config = std::make_shared<const NORVConfig>(std::vector<char>(text->begin(), text->end()), next.stamp);
    if (const std::string fault = faultOf(*config); !fault.empty()) {
        next.stamp = state()->stamp;
        return fail(std::move(next), fault);
    }
    next.good = std::move(config);
    next.error.clear();
    state_.store(std::make_shared<const State>(std::move(next)));
    NORV_LOG(NORV_LOG_INFO, "Configuration read: %s", file_.c_str());
    return true;
}

bool ConfigurationStore::fail(State next, const std::string& what) {
    const bool known = next.error == what;
    next.error = what;
    state_.store(std::make_shared<const State>(std::move(next)));
    if (!known)
        NORV_LOG(NORV_LOG_ERROR, "The configuration %s cannot be used and is left as it is: %s", file_.c_str(),
                 what.c_str());
    return false;
}

std::shared_ptr<const NORVConfig> ConfigurationStore::snapshot() const { return state()->good; }

std::string ConfigurationStore::error() const { return state()->error; }

SaveResult ConfigurationStore::update(const std::function<bool(NORVConfig&)>& change, const EventActor& who) {
    SaveResult result;
    std::vector<ConfigurationChange> changes;
    {
        const std::lock_guard lock(writing_);
        const auto before = state()->good;
        if (readAgain(identify(file_))) changes.push_back({.byHand = true, .before = before, .after = state()->good});
        if (const StatePtr known = state(); !known->error.empty()) {
            result.reason = "The configuration cannot be used: " + known->error;
        } else {
            NORVConfig config(*known->good);
            result = change(config) ? store(config) : SaveResult{SaveOutcome::REFUSED};
            if (saved(result.outcome)) changes.push_back({false, known->good, state()->good, who});
        }
    }
    if (listener_) std::for_each(changes.begin(), changes.end(), listener_);
    return result;
}

SaveResult ConfigurationStore::store(const NORVConfig& changed) {
    const std::string text = changed.toText();
    State next = *state();
    next.stamp = std::max(clock_.now(), next.stamp + 1);
    auto stored = std::make_shared<const NORVConfig>(std::vector<char>(text.begin(), text.end()), next.stamp);
    if (const std::string fault = faultOf(*stored); !fault.empty() || text.size() > MAX_DOCUMENT) {
        NORV_LOG(NORV_LOG_ERROR, "A changed configuration was refused: %s", fault.empty() ? "too long" : fault.c_str());
        return {SaveOutcome::FAILED, "The settings are too long."};
    }
    if (const auto result = writeFileAtomically(file_, text, DOCUMENT_MODE, next.stamp); !result) {
        const std::string reason = errorText(result.error);
        NORV_LOG(NORV_LOG_ERROR, "The configuration %s could not be saved: %s", file_.c_str(), reason.c_str());
        State failed = *state();
        failed.saveProblem = "The settings could not be saved: " + reason;
        SaveResult told{SaveOutcome::FAILED, failed.saveProblem};
        state_.store(std::make_shared<const State>(std::move(failed)));
        return told;
    }
    next.good = std::move(stored);
    next.identity = identify(file_);
    next.saveProblem.clear();
    state_.store(std::make_shared<const State>(std::move(next)));
    return {writeBackup(text) ? SaveOutcome::SAVED : SaveOutcome::SAVED_WITHOUT_BACKUP};
}

void ConfigurationStore::backUp() {
    const std::lock_guard lock(writing_);
    int error = 0;
    const auto text = readFile(file_, MAX_DOCUMENT, error);
    // What is there by now may be another one, which was not looked at yet.
    if (const StatePtr known = state(); text && known->error.empty() && identify(file_) == known->identity)
        writeBackup(*text);
}

bool ConfigurationStore::writeBackup(const std::string& text) {
    const auto backup = backupFile();
    int error = 0;
    if (readFile(backup, MAX_DOCUMENT, error) == text) return true;
    const auto result = writeFileAtomically(backup, text, DOCUMENT_MODE);
    if (!result)
        NORV_LOG(NORV_LOG_WARNING, "The configuration's backup %s could not be written: %s", backup.c_str(),
                 errorText(result.error).c_str());
    return result.written;
}

std::filesystem::path ConfigurationStore::backupFile() const { return file_.string() + ".bak"; }

}  // namespace keldra
