#include "service/access/totp.h"

#include <nettle/hmac.h>

#include <array>

namespace keldra {

namespace {

constexpr std::string_view LETTERS = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr unsigned BITS = 5;  // that a letter tells
constexpr std::uint32_t MODULUS = 1'000'000;

}  // namespace

std::string totpCode(std::span<const unsigned char> secret, std::int64_t step) {
    std::array<std::uint8_t, 8> counter{};
    for (std::size_t i = 0; i < counter.size(); ++i)
        counter[counter.size() - 1 - i] = static_cast<std::uint8_t>(static_cast<std::uint64_t>(step) >> (8 * i));
    hmac_sha1_ctx context{};
    ::nettle_hmac_sha1_set_key(&context, secret.size(), secret.data());
    ::nettle_hmac_sha1_update(&context, counter.size(), counter.data());
    std::array<std::uint8_t, SHA1_DIGEST_SIZE> digest{};
    ::nettle_hmac_sha1_digest(&context, digest.size(), digest.data());
    const std::size_t at = digest.back() & 0x0FU;
    const std::uint32_t number = (std::uint32_t{digest.at(at)} & 0x7FU) << 24U |
                                 std::uint32_t{digest.at(at + 1)} << 16U | std::uint32_t{digest.at(at + 2)} << 8U |
                                 digest.at(at + 3);
    std::string code = std::to_string(number % MODULUS);
    return code.insert(0, TOTP_DIGITS - code.size(), '0');
}

std::string base32Encode(std::span<const unsigned char> bytes) {
    std::string text;
    std::uint32_t held = 0;
    unsigned bits = 0;
    for (const unsigned char byte : bytes) {
        held = held << 8U | byte;
        for (bits += 8; bits >= BITS; bits -= BITS) text += LETTERS[held >> (bits - BITS) & 31U];
    }
    if (bits > 0) text += LETTERS[held << (BITS - bits) & 31U];
    return text;
}

std::vector<unsigned char> base32Decode(std::string_view text) {
    std::vector<unsigned char> bytes;
    std::uint32_t held = 0;
    unsigned bits = 0;
    for (const char letter : text) {
        const std::size_t value = LETTERS.find(letter);
        if (value == std::string_view::npos) break;
        held = held << BITS | static_cast<std::uint32_t>(value);
        bits += BITS;
        if (bits < 8) continue;
        bits -= 8;
        bytes.push_back(static_cast<unsigned char>(held >> bits & 0xFFU));
    }
    return bytes;
}

}  // namespace keldra
