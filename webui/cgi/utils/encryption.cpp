#include "webui/cgi/utils/encryption.h"

#include "norv/crypto.h"
#include "norv/log.h"

#include <cstddef>
#include <memory>
#include <new>

namespace {

/// Bytes that the encrypted form of a text of `length` bytes may take with its terminator.
std::size_t encryptedSize(std::size_t length) {
    const std::size_t total = length + 3;
    const std::size_t rest = total % 64;
    return total / 64 * 140 + 9 + (rest == 0 ? 0 : (rest + 7) / 8 * 16 + 11);
}

}  // namespace

bool encrypt_string(std::string& text) {
    const std::size_t size = encryptedSize(text.size());
    const std::unique_ptr<char[]> encrypted(new (std::nothrow) char[size]());
    if (!encrypted) {
        NORV_LOG(NORV_LOG_REFUSED, "Not enough memory: encrypted");
        return false;
    }
    const int length = dm_encryptString(text.c_str(), encrypted.get(), size);
    if (length < 1) {
        NORV_LOG(NORV_LOG_REFUSED, "dm_encryptString() failed. [%d]", length);
        return false;
    }
    text = encrypted.get();
    return true;
}
