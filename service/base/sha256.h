#pragma once

#include <nettle/sha2.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace keldra {

/// SHA-256 of bytes that come in pieces.
class Sha256 {
public:
    using Digest = std::array<uint8_t, SHA256_DIGEST_SIZE>;

    Sha256() { nettle_sha256_init(&context_); }
    void add(std::string_view bytes);
    /// Of all that was added; begins anew.
    Digest digest();
    /// The same as lower-case hexadecimal.
    std::string hex();

private:
    sha256_ctx context_{};
};

}  // namespace keldra
