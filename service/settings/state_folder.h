#pragma once

#include "service/base/files.h"

#include <filesystem>
#include <string>

namespace keldra {

/// Beside the password; keldractl removes it.
inline constexpr const char* SECOND_FACTOR_FILE = "second-factor";

/// The folder that holds all that the service stores beside the configuration: what lies where in it, and that only one
/// service works on it.
class StateFolder {
public:
    explicit StateFolder(std::filesystem::path path) : path_(std::move(path)) {}

    /// Makes what is missing of it and takes it for this process. False, with one sentence in `error`, when that fails,
    /// for instance because another service has it.
    bool take(std::string& error);
    /// What the folder is held by; -1 when it is not.
    int lockDescriptor() const { return lock_.get(); }
    /// Lets go of a folder by that descriptor: for an end at which it may stay open.
    static void unlock(int lockDescriptor);
    /// Removes what a kill left in the middle of a write or of unpacking an archive.
    void removeLeftovers() const;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path unpacking() const { return path_ / "tmp"; }
    std::filesystem::path signatures() const { return path_ / "signatures"; }
    std::filesystem::path history() const { return path_ / "history"; }
    std::filesystem::path events() const { return path_ / "events"; }
    std::filesystem::path quarantine() const { return path_ / "quarantine"; }
    std::filesystem::path trusted() const { return path_ / "trusted"; }
    std::filesystem::path sessions() const { return path_ / "sessions"; }
    std::filesystem::path password() const { return path_ / "password"; }
    std::filesystem::path secondFactor() const { return path_ / SECOND_FACTOR_FILE; }
    std::filesystem::path schedule() const { return path_ / "schedule.json"; }

private:
    bool makeFolders(std::string& error) const;
    bool lock(std::string& error);

    const std::filesystem::path path_;
    FileDescriptor lock_;
};

}  // namespace keldra
