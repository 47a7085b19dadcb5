#include "service/base/sha256.h"

#include "norv/crypto.h"

namespace keldra {

void Sha256::add(std::string_view bytes) {
    nettle_sha256_update(&context_, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
}

Sha256::Digest Sha256::digest() {
    Digest bytes{};
    nettle_sha256_digest(&context_, bytes.size(), bytes.data());
    return bytes;
}

std::string Sha256::hex() {
    const Digest bytes = digest();
    return bin2hex({bytes.begin(), bytes.end()});
}

}  // namespace keldra
