#include "service/access/password.h"

#include "norv/crypto.h"
#include "norv/log.h"
#include "service/base/files.h"

#include <crypt.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t MAX_HASH_FILE = 1024;
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

std::string faultOf(const std::string& password) {
    if (password.empty()) return "the password is empty";
    if (password.size() > MAX_PASSWORD_LENGTH) return "the password is longer than 32 bytes";
    const auto control = [](unsigned char c) { return c < ' ' || c == 0x7F; };
    if (std::any_of(password.begin(), password.end(), control)) return "the password holds control characters";
    return {};
}

}  // namespace

std::string storePassword(const std::filesystem::path& file, const std::string& password) {
    if (std::string fault = faultOf(password); !fault.empty()) return fault;
    const std::string salt = newSalt();
    const std::string hash = salt.empty() ? "" : hashWith(password, salt);
    if (hash.empty()) return "the password could not be hashed";
    const auto result = writeFileAtomically(file, hash + "\n", 0600);
    return result ? "" : file.string() + ": " + errorText(result.error);
}

bool checkPassword(const std::filesystem::path& file, const std::string& password) {
    int error = 0;
    const auto content = readFile(file, MAX_HASH_FILE, error);
    if (!content) {
        NORV_LOG(NORV_LOG_ERROR, "No console password: %s: %s", file.c_str(), errorText(error).c_str());
        return false;
    }
    const std::string stored = content->substr(0, content->find('\n'));
    if (stored.empty() || !faultOf(password).empty()) return false;
    const std::string hash = hashWith(password, stored);
    return !hash.empty() && constantTimeEqual(hash, stored);
}

std::int64_t passwordSetAt(const std::filesystem::path& file) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 ? status.st_mtim.tv_sec : 0;
}

}  // namespace keldra
