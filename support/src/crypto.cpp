#include "norv/crypto.h"

#include "file_descriptor.h"
#include "norv/log.h"

#include <fcntl.h>
#include <nettle/memops.h>
#include <nettle/siv-cmac.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace {

constexpr const char* DEFAULT_KEY_FILE = "/etc/keldra/console.key";
constexpr std::size_t NONCE_SIZE = 4;
constexpr std::size_t OVERHEAD = NONCE_SIZE + SIV_DIGEST_SIZE;
constexpr std::string_view BASE64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

const char* keyFile() {
    const char* const path = std::getenv("KELDRA_KEY_FILE");
    return path && *path ? path : DEFAULT_KEY_FILE;
}

/// The key of one line of hexadecimal digits, with or without a line end.
bool parseKey(std::string_view text, Key& key) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (text.size() != 2 * key.size()) return false;
    for (std::size_t i = 0; i < key.size(); ++i) {
        const int high = hexDigit(text[2 * i]);
        const int low = hexDigit(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        key[i] = static_cast<uint8_t>(high * 16 + low);
    }
    return true;
}

bool readKey(Key& key) {
    const FileDescriptor file(::open(keyFile(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    std::array<char, 2 * SIV_CMAC_AES128_KEY_SIZE + 2> text{};
    const ssize_t count = file ? ::read(file.get(), text.data(), text.size()) : -1;
    const bool good = count > 0 && parseKey({text.data(), static_cast<std::size_t>(count)}, key);
    explicit_bzero(text.data(), text.size());
    if (!good) NORV_LOG(NORV_LOG_REFUSED, "No key of 64 hexadecimal digits in %s", keyFile());
    return good;
}

std::string base64Encode(const std::vector<unsigned char>& bytes) {
    std::string text;
    uint32_t bits = 0;
    unsigned count = 0;
    for (const unsigned char byte : bytes) {
        bits = (bits << 8U | byte) & 0xffffU;
        for (count += 8; count >= 6; count -= 6) text += BASE64[bits >> (count - 6) & 63U];
    }
    if (count > 0) text += BASE64[bits << (6 - count) & 63U];
    return text;
}

/// Nothing when `text` is not what `base64Encode` writes for some bytes.
std::optional<std::vector<unsigned char>> base64Decode(std::string_view text) {
    std::vector<unsigned char> bytes;
    uint32_t bits = 0;
    unsigned count = 0;
    for (const char c : text) {
        const std::size_t digit = BASE64.find(c);
        if (digit == std::string_view::npos) return std::nullopt;
        bits = (bits << 6U | static_cast<uint32_t>(digit)) & 0xffffU;
        count += 6;
        if (count < 8) continue;
        count -= 8;
        bytes.push_back(static_cast<unsigned char>(bits >> count & 0xffU));
    }
    const bool unused = count < 6 && (bits & ((1U << count) - 1)) == 0;
    return unused ? std::optional(bytes) : std::nullopt;
}

}  // namespace

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
    const std::string encoded = base64Encode(bytes);
    if (encoded.size() >= size) return -1;
    std::memcpy(out, encoded.c_str(), encoded.size() + 1);
    return static_cast<int>(encoded.size());
}

bool dm_decryptString(std::string_view encrypted, std::string& text) {
    const auto bytes = base64Decode(encrypted);
    Key key{};
    if (!bytes || bytes->size() < OVERHEAD || !readKey(key)) return false;
    const Cipher cipher(key);
    explicit_bzero(key.data(), key.size());
    std::string plain(bytes->size() - OVERHEAD, '\0');
    const bool good =
        siv_cmac_aes128_decrypt_message(cipher.get(), NONCE_SIZE, bytes->data(), 0, nullptr, plain.size(),
                                        reinterpret_cast<uint8_t*>(plain.data()), bytes->data() + NONCE_SIZE) == 1;
    if (good) text = std::move(plain);
    return good;
}

bool constantTimeEqual(std::string_view a, std::string_view b) {
    return a.size() == b.size() && (a.empty() || memeql_sec(a.data(), b.data(), a.size()) == 1);
}
