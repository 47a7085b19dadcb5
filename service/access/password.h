#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace keldra {

/// Longest password that the log-on page sends, in bytes.
inline constexpr std::size_t MAX_PASSWORD_LENGTH = 32;

/// Stores a password's yescrypt hash in `file` (0600), as one step. Returns what is wrong, empty when nothing is: an
/// empty or too long password, control characters, a file that cannot be written.
std::string storePassword(const std::filesystem::path& file, const std::string& password);

/// Whether `password` is the one whose hash `file` holds. False also when there is no such file.
bool checkPassword(const std::filesystem::path& file, const std::string& password);

/// When the password was last set, seconds since the epoch; 0 when there is none.
std::int64_t passwordSetAt(const std::filesystem::path& file);

}  // namespace keldra
