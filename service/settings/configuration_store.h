#pragma once

#include "norv/norv_config.h"
#include "service/base/clock.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace keldra {

/// What became of a change to the configuration.
enum class SaveOutcome {
    SAVED,
    SAVED_WITHOUT_BACKUP,  ///< the change stands, its backup copy could not be written
    REFUSED,               ///< the change function declined
    FAILED,                ///< the old document stands: the file does not parse or could not be replaced
};

inline bool saved(SaveOutcome outcome) {
    return outcome == SaveOutcome::SAVED || outcome == SaveOutcome::SAVED_WITHOUT_BACKUP;
}

/// The configuration document on disk. One object owns the file; it may be used from several threads. The document's
/// stamp is the file's modification time and grows with every save. A file that was changed by hand is read again
/// before it is served or changed; one that does not parse is reported and never overwritten.
class ConfigurationStore {
public:
    /// `file`: the document; its backup stands beside it with ".bak" appended.
    ConfigurationStore(std::filesystem::path file, const Clock& clock);

    enum class Change { SAVED, BY_HAND };
    /// Called after each change of the document, outside of the store's lock: by the thread that saved it, or by the
    /// one that came upon a change by hand.
    void onChange(std::function<void(Change)> listener);

    /// Reads the file when it is not the one that was read last. True when the document is good. What is wrong with a
    /// file is logged once.
    bool refresh();

    /// The last good document, never null (empty when there was none); for those who must go on when the file is
    /// broken.
    std::shared_ptr<const NORVConfig> snapshot() const;
    /// What is wrong with the file, empty when nothing is.
    std::string error() const;

    /// Changes the document: `change` gets a copy, returns whether it is to be stored. On return the new document is on
    /// disk, synced, or the old one stands.
    SaveOutcome update(const std::function<bool(NORVConfig&)>& change);

private:
    struct Identity {
        std::uint64_t device = 0, inode = 0, size = 0;
        std::int64_t seconds = 0, nanoseconds = 0;
        bool operator==(const Identity&) const = default;
    };

    static Identity identify(const std::filesystem::path& file);
    bool refreshLocked(bool& changed);
    bool loadLocked();
    bool fail(const std::string& what);
    SaveOutcome storeLocked(const NORVConfig& changed);
    bool writeBackup(const std::string& text);
    std::filesystem::path backupFile() const;

    const std::filesystem::path file_;
    const Clock& clock_;
    mutable std::mutex mutex_;
    std::function<void(Change)> listener_;
    std::shared_ptr<const NORVConfig> good_;
    Identity identity_;
    bool loaded_ = false;
    std::int64_t lastStamp_ = 0;
    std::string error_ = "not read yet";
};

}  // namespace keldra
