#include "service/access/password.h"

#include "norv/crypto.h"
#include "norv/log.h"
#include "service/base/files.h"
#include "service/base/sha256.h"

#include <crypt.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t MAX_HASH_FILE = 1024;
/// The line behind the hash of a password that must be changed.
constexpr const char* MUST_CHANGE = "must change";
constexpr const char* NO_KEY = "The key that passwords are enciphered with cannot be read";
constexpr unsigned long SALT_BYTES = 32;
/// Cost parameter of yescrypt; 5 is the recommended one (about 20 ms and 16 MiB).
constexpr unsigned long COST = 5;

/// The hash of a password under a salt or an older hash; empty when it cannot be computed.
std::string hashWith(const std::string& password, const std::string& setting) {
    // One at a time: each takes megabytes, and nobody waits long.
    static std::mutex one;
    const std::lock_guard lock(one);
    const auto data = std::make_unique<crypt_data>();
    const char* hash = ::crypt_r(password.c_str(), setting.c_str(), data.get());
    return hash && *hash != '*' ? hash : "";
}

std::string newSalt() {
    std::vector<unsigned char> bytes;
    if (!getRandomBytes(SALT_BYTES, bytes)) return {};
    crypt_data data{};
    const char* salt = ::crypt_gensalt_rn("$y$", COST, reinterpret_cast<const char*>(bytes.data()),
                                          static_cast<int>(bytes.size()), data.output, sizeof data.output);
    return salt ? salt : "";
}

/// What can be typed on the log-on page at all.
std::string faultOf(const std::string& password) {
    if (password.empty()) return "the password is empty";
    if (password.size() > MAX_PASSWORD_LENGTH) return "the password is longer than 32 bytes";
    const auto control = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    if (std::any_of(password.begin(), password.end(), control)) return "the password holds control characters";
    return {};
}

std::size_t charactersOf(const std::string& text) {
    const auto begins = [](unsigned char c) { return (c & 0xC0U) != 0x80U; };
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), begins));
}

std::string markOf(const std::string& content) {
    Sha256 hash;
    hash.add(content);
    return hash.hex();
}

bool saysMustChange(const std::string& content) { return content.ends_with(MUST_CHANGE); }

std::string identityOf(const struct stat& status) {
    std::string identity;
    for (const auto number :
         {static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino), status.st_size,
          status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec, status.st_ctim.tv_nsec})
        identity += std::to_string(number) + ":";
    return identity;
}

}  // namespace

std::string PasswordFile::store(const std::string& password, bool once) const {
    if (std::string fault = faultOf(password); !fault.empty()) return fault;
    if (charactersOf(password) < MIN_PASSWORD_CHARACTERS) return "the password is shorter than 8 characters";
    const std::string salt = newSalt();
    const std::string hash = salt.empty() ? "" : hashWith(password, salt);
    if (hash.empty()) return "the password could not be hashed";
    const auto result = writeFileAtomically(file_, hash + "\n" + (once ? MUST_CHANGE : ""), 0600);
    return result ? "" : file_.string() + ": " + errorText(result.error);
}

PasswordCheck PasswordFile::check(const std::string& password) const {
    int error = 0;
    const auto content = readFile(file_, MAX_HASH_FILE, error);
    if (!content) {
        NORV_LOG(NORV_LOG_ERROR, "No console password: %s: %s", file_.c_str(), errorText(error).c_str());
        const bool none = error == ENOENT;
        return {.trouble = none ? "No password has been set yet." : "The password cannot be read: " + errorText(error)};
    }
    const std::string stored = content->substr(0, content->find('\n'));
    if (stored.empty() || !faultOf(password).empty()) return {};
    errno = 0;
    const std::string hash = hashWith(password, stored);
    if (hash.empty() && errno == ENOMEM) return {.trouble = "There is not enough memory to check the password."};
    if (hash.empty()) return {};
    return {.fits = constantTimeEqual(hash, stored), .mustChange = saysMustChange(*content), .mark = markOf(*content)};
}

PasswordCheck PasswordFile::checkEnciphered(const std::string& enciphered) const {
    std::string password;
    int error = 0;
    if (dm_decryptString(enciphered, password, &error)) return check(password);
    if (error == 0) return {};
    return {.trouble = std::string(NO_KEY) + (error == EINVAL ? "." : ": " + errorText(error))};
}

/// Called with the lock held.
void PasswordFile::look() {
    struct stat status {};
    const bool there = ::stat(file_.c_str(), &status) == 0;
    const int missing = there ? 0 : errno;
    if (!there) {
        // Want of memory or descriptors is no reason to end everybody's session.
        if (missing == ENOENT || missing == ENOTDIR) seen_.clear(), mark_.clear();
        return;
    }
    const std::string identity = identityOf(status);
    if (identity == seen_) return;
    int error = 0;
    if (const auto content = readFile(file_, MAX_HASH_FILE, error)) {
        mark_ = markOf(*content);
        mustChange_ = saysMustChange(*content);
        seen_ = identity;
    }
}

std::string PasswordFile::mark() {
    const std::lock_guard lock(mutex_);
    look();
    return mark_;
}

bool PasswordFile::liesIn(const std::filesystem::path& folder) const {
    std::error_code ignored;
    return std::filesystem::equivalent(file_.parent_path(), folder, ignored);
}

bool PasswordFile::mustChange() {
    const std::lock_guard lock(mutex_);
    look();
    return mustChange_;
}

}  // namespace keldra
