#pragma once

#include "norv/norv_config.h"
#include "service/base/clock.h"
#include "service/events/event.h"

#include <atomic>
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

/// What became of it and, when it was not stored, why: an English sentence, empty when the change function declined.
struct SaveResult {
    SaveOutcome outcome = SaveOutcome::FAILED;
    std::string reason{};
};

/// The document was changed: by a save, or in the file by somebody else.
struct ConfigurationChange {
    bool byHand = false;
    std::shared_ptr<const NORVConfig> before{};  ///< neither is ever null
    std::shared_ptr<const NORVConfig> after{};
    EventActor who{};  ///< who saved it
};

/// The configuration document on disk. One object owns the file; it may be used from several threads. The document's
/// stamp is the file's modification time and grows with every save. A file that was changed by hand is read again
/// before it is served or changed; one that does not parse is reported and never overwritten. Whoever only reads never
/// waits for somebody who writes, however long the disk takes: the last document is published whole.
class ConfigurationStore {
public:
    /// `file`: the document; its backup stands beside it with ".bak" appended.
    ConfigurationStore(std::filesystem::path file, const Clock& clock);

    /// Called after each change of the document, outside of the store's lock: by the thread that saved it, or by the
    /// one that came upon a change by hand, which is not to be held up. Set it before the store is used by several.
    void onChange(std::function<void(const ConfigurationChange&)> listener);

    /// Reads the file when it is not the one that was read last; while it is being saved the last document stands. True
    /// when the document is good. What is wrong with a file is logged once.
    bool refresh();
    /// Writes the backup of a document that was changed by hand; those of saved ones are there already.
    void backUp();

    /// The last good document, never null (empty when there was none); for those who must go on when the file is
    /// broken.
    std::shared_ptr<const NORVConfig> snapshot() const;
    /// What is wrong with the file, empty when nothing is.
    std::string error() const;
    /// Why the last change could not be stored, in English; empty when it could.
    std::string saveProblem() const { return state()->saveProblem; }

    /// Changes the document for `who`: `change` gets a copy, returns whether it is to be stored. On return the new
    /// document is on disk, synced, or the old one stands.
    /// `change` must not wait for anything: other saves wait for it.
    SaveResult update(const std::function<bool(NORVConfig&)>& change, const EventActor& who = {});

private:
    struct Identity {
        std::uint64_t device = 0, inode = 0, size = 0;
        std::int64_t seconds = 0, nanoseconds = 0;
        bool operator==(const Identity&) const = default;
    };

    /// All that readers see; never changed, only replaced.
    struct State {
        std::shared_ptr<const NORVConfig> good;
        Identity identity{};
        bool loaded = false;
        std::int64_t stamp = 0;
        std::string error = "not read yet";
        std::string saveProblem{};
    };
    using StatePtr = std::shared_ptr<const State>;

    static Identity identify(const std::filesystem::path& file);
    StatePtr state() const { return state_.load(std::memory_order_acquire); }
    bool readAgain(const Identity& identity);
    bool fail(State next, const std::string& what);
    SaveResult store(const NORVConfig& changed);
    bool writeBackup(const std::string& text);
    std::filesystem::path backupFile() const;

    const std::filesystem::path file_;
    const Clock& clock_;
    std::function<void(const ConfigurationChange&)> listener_;
    std::mutex writing_;  ///< held by who changes the file or the state
    std::atomic<StatePtr> state_;
};

}  // namespace keldra
