#pragma once

#include <cstddef>
#include <filesystem>
#include <mutex>
#include <string>

namespace keldra {

/// Longest password that the log-on page sends, in bytes.
inline constexpr std::size_t MAX_PASSWORD_LENGTH = 32;
/// Shortest one that may be set, in characters; shorter ones that were set before are still taken.
inline constexpr std::size_t MIN_PASSWORD_CHARACTERS = 8;

/// What became of a log-on's password.
struct PasswordCheck {
    bool fits = false;
    bool mustChange = false;  ///< it was given to be used once
    std::string mark{};       ///< of the very password that it was compared with, see `PasswordFile::mark`
    std::string trouble{};    ///< English: why nothing could be compared; empty for a password that is just wrong
};

/// The file that holds the yescrypt hash of the console's password. May be used from several threads, and others may
/// replace the file at any time.
class PasswordFile {
public:
    explicit PasswordFile(std::filesystem::path file) : file_(std::move(file)) {}

    /// Stores a password's hash (0600), as one step. Returns what is wrong, empty when nothing is: too short or too
    /// long, control characters, a file that cannot be written.
    /// `once`: whoever logs on with it must choose another one before anything else.
    std::string store(const std::string& password, bool once = false) const;

    /// Whether `password` is the one whose hash the file holds. Takes some 20 ms; one at a time.
    PasswordCheck check(const std::string& password) const;

    /// The same for a password as it travels to the service. One that cannot be deciphered is wrong, unless there is no
    /// key for it.
    PasswordCheck checkEnciphered(const std::string& enciphered) const;

    /// Tells one password set from the next, also when the same one was set again; empty when there is none. What it
    /// says is as new as the file; the file is read only when it is another one.
    std::string mark();
    /// Whether the password must be changed before anything else is done. As new as the file.
    bool mustChange();

    /// Whether the file lies in this folder.
    bool liesIn(const std::filesystem::path& folder) const;

private:
    void look();

    const std::filesystem::path file_;
    std::mutex mutex_;
    std::string seen_;  ///< what tells the file that was read from others
    std::string mark_;
    bool mustChange_ = false;
};

}  // namespace keldra
