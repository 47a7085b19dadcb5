#include "norv/crypto.h"

#include "norv/file_descriptor.h"
#include "norv/log.h"

#include <fcntl.h>
#include <nettle/base16.h>
#include <nettle/base64.h>
#include <nettle/memops.h>
#include <nettle/siv-cmac.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* DEFAULT_KEY_FILE = "/etc/keldra/console.key";
constexpr std::size_t NONCE_SIZE = 4;
constexpr std::size_t OVERHEAD = NONCE_SIZE + SIV_DIGEST_SIZE;

/// A key ready for use, wiped when it goes.
class Cipher {
public:
    explicit Cipher(const std::array<uint8_t, SIV_CMAC_AES128_KEY_SIZE>& key) {
        siv_cmac_aes128_set_key(&context_, key.data());
    }
    Cipher(const Cipher&) = delete;
    Cipher& operator=(const Cipher&) = delete;
    ~Cipher() { explicit_bzero(&context_, sizeof(context_)); }

    const siv_cmac_aes128_ctx* get() const { return &context_; }

private:
    siv_cmac_aes128_ctx context_{};
};

using Key = std::array<uint8_t, SIV_CMAC_AES128_KEY_SIZE>;

const char* keyFile() {
    const char* const path = std::getenv("KELDRA_KEY_FILE");
    return path && *path ? path : DEFAULT_KEY_FILE;
}

/// The key of one line of hexadecimal digits, with or without a line end.
bool parseKey(std::string_view text, Key& key) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    // The library's reader would pass over blanks.
    const bool digits = std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c) != 0; });
    if (text.size() != 2 * key.size() || !digits) return false;
    base16_decode_ctx decoder{};
    base16_decode_init(&decoder);
    std::size_t length = key.size();
    return base16_decode_update(&decoder, &length, key.data(), text.size(), text.data()) == 1 &&
           base16_decode_final(&decoder) == 1 && length == key.size();
}

bool readKey(Key& key, int* error = nullptr) {
    const FileDescriptor file(::open(keyFile(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    std::array<char, 2 * SIV_CMAC_AES128_KEY_SIZE + 2> text{};
    const ssize_t count = file ? ::read(file.get(), text.data(), text.size()) : -1;
    const int failure = count < 0 ? errno : EINVAL;
    const bool good = count > 0 && parseKey({text.data(), static_cast<std::size_t>(count)}, key);
    if (error) *error = good ? 0 : failure;
    explicit_bzero(text.data(), text.size());
    if (!good) NORV_LOG(NORV_LOG_REFUSED, "No key of 64 hexadecimal digits in %s", keyFile());
    return good;
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
    base64_encode_raw(text.data(), bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
    text.erase(std::min(text.find('='), text.size()));
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    std::string padded(text);
    padded.append((4 - text.size() % 4) % 4, '=');
    base64_decode_ctx decoder{};
    base64_decode_init(&decoder);
    std::string bytes(BASE64_DECODE_LENGTH(padded.size()), '\0');
    std::size_t length = bytes.size();
    const bool read = base64_decode_update(&decoder, &length, reinterpret_cast<uint8_t*>(bytes.data()), padded.size(),
                                           padded.data()) == 1 &&
                      base64_decode_final(&decoder) == 1;
    bytes.resize(read ? length : 0);
    // The library's reader passes over blanks and bits that do not count.
    if (!read || base64Encode(bytes) != text) return std::nullopt;
    return bytes;
}

int dm_encryptString(const char* text, char* out, std::size_t size) {
    Key key{};
    std::vector<unsigned char> bytes;
    if (!text || !out || size == 0 || !readKey(key) || !getRandomBytes(NONCE_SIZE, bytes)) return -1;
    const Cipher cipher(key);
    explicit_bzero(key.data(), key.size());
    const std::size_t length = std::strlen(text);
    bytes.resize(OVERHEAD + length);
    siv_cmac_aes128_encrypt_message(cipher.get(), NONCE_SIZE, bytes.data(), 0, nullptr, SIV_DIGEST_SIZE + length,
                                    bytes.data() + NONCE_SIZE, reinterpret_cast<const uint8_t*>(text));
    const std::string encoded = base64Encode({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    if (encoded.size() >= size) return -1;
    std::memcpy(out, encoded.c_str(), encoded.size() + 1);
    return static_cast<int>(encoded.size());
}

bool dm_decryptString(std::string_view encrypted, std::string& text, int* keyError) {
    if (keyError) *keyError = 0;
    const auto decoded = base64Decode(encrypted);
    Key key{};
    if (!decoded || decoded->size() < OVERHEAD || !readKey(key, keyError)) return false;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(decoded->data());
    const Cipher cipher(key);
    explicit_bzero(key.data(), key.size());
    std::string plain(decoded->size() - OVERHEAD, '\0');
    const bool good =
        siv_cmac_aes128_decrypt_message(cipher.get(), NONCE_SIZE, bytes, 0, nullptr, plain.size(),
                                        reinterpret_cast<uint8_t*>(plain.data()), bytes + NONCE_SIZE) == 1;
    if (good) text = std::move(plain);
    return good;
}

bool constantTimeEqual(std::string_view a, std::string_view b) {
    return a.size() == b.size() && (a.empty() || memeql_sec(a.data(), b.data(), a.size()) == 1);
}
