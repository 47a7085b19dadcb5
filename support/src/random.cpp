// Apart from the encryption, so that a program that encrypts nothing does not link the cipher library: its start-up
// asks the processor for its features, which takes long in a virtual machine.
#include "norv/crypto.h"

#include <sys/random.h>

#include <cerrno>

bool getRandomBytes(unsigned long count, std::vector<unsigned char>& bytes) {
    bytes.assign(count, 0);
    std::size_t filled = 0;
    while (filled < count) {
        const ssize_t got = ::getrandom(bytes.data() + filled, count - filled, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            bytes.clear();
            return false;
        }
        filled += static_cast<std::size_t>(got);
    }
    return true;
}

std::string bin2hex(const std::vector<unsigned char>& bytes) {
    static constexpr std::string_view DIGITS = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += DIGITS[byte >> 4U];
        text += DIGITS[byte & 15U];
    }
    return text;
}
