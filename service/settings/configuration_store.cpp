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
    : file_(std::move(file)), clock_(clock), good_(std::make_shared<const NORVConfig>()) {}

void ConfigurationStore::onChange(std::function<void(Change)> listener) {
    const std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

ConfigurationStore::Identity ConfigurationStore::identify(const std::filesystem::path& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size), status.st_mtim.tv_sec,
            status.st_mtim.tv_nsec};
}

bool ConfigurationStore::refresh() {
    bool changed = false;
    std::function<void(Change)> listener;
    bool good = false;
    {
        const std::lock_guard lock(mutex_);
        good = refreshLocked(changed);
        if (changed) listener = listener_;
    }
    if (listener) listener(Change::BY_HAND);
    return good;
}

bool ConfigurationStore::refreshLocked(bool& changed) {
    const Identity identity = identify(file_);
    if (loaded_ && identity == identity_) return error_.empty();
    identity_ = identity;
    loaded_ = true;
    changed = loadLocked();
    return changed;
}

bool ConfigurationStore::loadLocked() {
    int error = 0;
    const auto text = readFile(file_, MAX_DOCUMENT, error);
    if (!text) {
        loaded_ = false;  // what keeps a file from being read may pass without a trace on it
        return fail(errorText(error));
    }

    // A file set back in time is newer all the same: pages that show the old one must notice.
    const std::int64_t stamp = std::max(identity_.seconds, lastStamp_ + (identity_.seconds < lastStamp_ ? 1 : 0));
    auto config = std::make_shared<const NORVConfig>(std::vector<char>(text->begin(), text->end()), stamp);
    const std::string fault = faultOf(*config);
    if (!fault.empty()) return fail(fault);

    good_ = std::move(config);
    lastStamp_ = stamp;
    error_.clear();
    NORV_LOG(NORV_LOG_INFO, "Configuration read: %s", file_.c_str());
    writeBackup(*text);
    return true;
}

bool ConfigurationStore::fail(const std::string& what) {
    if (error_ == what) return false;
    error_ = what;
    NORV_LOG(NORV_LOG_ERROR, "The configuration %s cannot be used and is left as it is: %s", file_.c_str(),
             what.c_str());
    return false;
}

std::shared_ptr<const NORVConfig> ConfigurationStore::snapshot() const {
    const std::lock_guard lock(mutex_);
    return good_;
}

std::string ConfigurationStore::error() const {
    const std::lock_guard lock(mutex_);
    return error_;
}

SaveOutcome ConfigurationStore::update(const std::function<bool(NORVConfig&)>& change) {
    bool changed = false;
    std::function<void(Change)> listener;
    SaveOutcome outcome = SaveOutcome::FAILED;
    {
        const std::lock_guard lock(mutex_);
        if (refreshLocked(changed)) {
            NORVConfig config(*good_);
            outcome = change(config) ? storeLocked(config) : SaveOutcome::REFUSED;
        }
        if (changed || saved(outcome)) listener = listener_;
    }
    if (listener) listener(Change::SAVED);
    return outcome;
}

SaveOutcome ConfigurationStore::storeLocked(const NORVConfig& changed) {
    const std::string text = changed.toText();
    const std::int64_t stamp = std::max(clock_.now(), lastStamp_ + 1);
    auto stored = std::make_shared<const NORVConfig>(std::vector<char>(text.begin(), text.end()), stamp);
    if (const std::string fault = faultOf(*stored); !fault.empty() || text.size() > MAX_DOCUMENT) {
        NORV_LOG(NORV_LOG_ERROR, "A changed configuration was refused: %s", fault.empty() ? "too long" : fault.c_str());
        return SaveOutcome::FAILED;
    }
    if (const auto result = writeFileAtomically(file_, text, DOCUMENT_MODE, stamp); !result) {
        NORV_LOG(NORV_LOG_ERROR, "The configuration %s could not be saved: %s", file_.c_str(),
                 errorText(result.error).c_str());
        return SaveOutcome::FAILED;
    }
    good_ = std::move(stored);
    lastStamp_ = stamp;
    identity_ = identify(file_);
    return writeBackup(text) ? SaveOutcome::SAVED : SaveOutcome::SAVED_WITHOUT_BACKUP;
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
