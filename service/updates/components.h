#pragma once

#include "service/base/clock.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>

namespace keldra {

/// Versions and times of the components, in the texts that the served document shows; empty when nothing is installed.
/// Times are local, "YYYY-MM-DD hh:mm:ss".
struct ComponentVersions {
    std::string engineVersion, engineLastUpdate;
    std::string virusPatternVersion, virusPatternLastUpdate;
    std::string spywarePatternVersion, spywarePatternLastUpdate;

    bool operator==(const ComponentVersions&) const = default;
};

/// What is in the database folder, compared with the last look.
enum class FolderLook { SAME, CHANGED, FAILED };

/// What is installed in the database folder, and when that changed last. Kept in a file, for a database that is fetched
/// again unchanged does not count as new. May be used from several threads.
class Components {
public:
    /// `stateFile`: components.json, read now, replaced as a whole at each change.
    Components(std::filesystem::path stateFile, std::filesystem::path signatures, const Clock& clock);

    /// Looks into the database folder. Nothing is noted of one that cannot be read whole.
    FolderLook noteFiles();
    void noteEngine(const std::string& version);

    /// The version of a pattern is that of the daily official database (main or bytecode where there is none); of
    /// custom files, the UTC time "YYYYMMDD.hhmmss" at which the newest one changed; both joined with "+" where there
    /// are both. Custom files that say so in their name are the spyware pattern; without such files both patterns are
    /// the same.
    ComponentVersions versions() const;

private:
    struct FileRecord {
        std::string identity;  ///< version of a database with the official header, digest of any other
        int64_t changed = 0;   ///< modification time of the file when its identity changed, seconds since the epoch
        bool operator==(const FileRecord&) const = default;
    };
    using Files = std::map<std::string, FileRecord>;

    static FileRecord inspect(const std::filesystem::path& file);
    std::string patternVersion(bool spyware) const;
    int64_t patternTime(bool spyware) const;
    bool separateSpyware() const;
    void load();
    void save() const;

    const std::filesystem::path stateFile_;
    const std::filesystem::path signatures_;
    const Clock& clock_;
    std::mutex changing_;  ///< held by who changes what follows; taken before the other
    mutable std::mutex mutex_;
    Files files_;
    std::string engineVersion_;
    int64_t engineChanged_ = 0;
};

}  // namespace keldra
