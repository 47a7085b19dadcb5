#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace keldra {

// Codes that change with the time (TOTP), as authenticator apps show them: SHA-1, six digits, thirty seconds.

inline constexpr std::int64_t TOTP_SECONDS = 30;
inline constexpr std::size_t TOTP_DIGITS = 6;

/// The code of a time step. `step`: seconds since the epoch divided by TOTP_SECONDS.
std::string totpCode(std::span<const unsigned char> secret, std::int64_t step);

/// Base32 without padding, the form in which people type a secret into an app.
std::string base32Encode(std::span<const unsigned char> bytes);
/// The way back; characters that are none of base32 end it.
std::vector<unsigned char> base32Decode(std::string_view text);

}  // namespace keldra
