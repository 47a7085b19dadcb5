#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Fills `bytes` with `count` random bytes from the kernel. False when it cannot give them.
bool getRandomBytes(unsigned long count, std::vector<unsigned char>& bytes);

/// Two lower-case hexadecimal digits per byte.
std::string bin2hex(const std::vector<unsigned char>& bytes);

/// Base64 without padding.
std::string base64Encode(std::string_view bytes);

/// Nothing when `text` is not what `base64Encode` writes for some bytes.
std::optional<std::string> base64Decode(std::string_view text);

/// Encrypts a text for the way to the service (AES-SIV with a random nonce in front, base64 without padding) under the
/// key of KELDRA_KEY_FILE and writes it with its terminator into `out` of `size` bytes. Returns the written length, a
/// value below 1 when the key is missing or malformed or the text does not fit.
int dm_encryptString(const char* text, char* out, std::size_t size);

/// The way back, for the service. False when the text was not made by `dm_encryptString` under the same key, or when
/// there is no key: `keyError` is then an errno, EINVAL for a malformed one, and 0 otherwise.
bool dm_decryptString(std::string_view encrypted, std::string& text, int* keyError = nullptr);

/// Whether two texts are equal, in a time that depends on their lengths only.
bool constantTimeEqual(std::string_view a, std::string_view b);
