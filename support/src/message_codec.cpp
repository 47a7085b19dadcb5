#include "norv/message_codec.h"

#include <array>
#include <concepts>
#include <type_traits>
#include <utility>

// The bytes are those of a portable binary archive of cereal 1.3 that holds a std::unique_ptr<IPCMessage>. They are
// written here and not by cereal, because its headers set up the standard streams in every process that links them,
// which costs a page more than all of its messages do. A test holds the two together.

namespace {

/// In front of every message: little-endian, the declared type itself (cereal's id for it), not null.
constexpr std::string_view PREFIX("\1\0\0\0\x40\1", 6);
constexpr std::size_t NUMBERS_SIZE = 3 * sizeof(int32_t);
constexpr std::size_t COUNT_SIZE = sizeof(uint64_t);
/// Name, value and type tag each have a length.
constexpr std::size_t TEXTS_PER_PARAMETER = 3;

std::size_t payloadSize(const IPCMessage& message) {
    std::size_t size = PREFIX.size() + NUMBERS_SIZE + COUNT_SIZE;
    for (const auto& [name, parameter] : message.params) {
        size += TEXTS_PER_PARAMETER * COUNT_SIZE + name.size() + parameter.value.size() + parameter.type.size();
    }
    return size;
}

template <std::integral Number>
void append(std::string& payload, Number number) {
    const auto bits = static_cast<std::make_unsigned_t<Number>>(number);
    for (unsigned shift = 0; shift < 8 * sizeof(Number); shift += 8)
        payload += static_cast<char>(bits >> shift & 0xffU);
}

void append(std::string& payload, const std::string& text) {
    append(payload, uint64_t{text.size()});
    payload += text;
}

/// Takes a payload apart from its front. Every length is held against what is left before anything is allocated by it.
class PayloadReader {
public:
    explicit PayloadReader(std::string_view payload) : rest_(payload) {}

    bool read(IPCMessage& message) {
        uint64_t count = 0;
        if (!takePrefix() || !take(message.operation) || !take(message.commandID) || !take(message.result))
            return false;
        if (!take(count) || count > rest_.size() / (TEXTS_PER_PARAMETER * COUNT_SIZE)) return false;
        while (count-- > 0) {
            if (!takeParameter(message)) return false;
        }
        return rest_.empty();
    }

private:
    bool takePrefix() {
        if (!rest_.starts_with(PREFIX)) return false;
        rest_.remove_prefix(PREFIX.size());
        return true;
    }

    template <std::integral Number>
    bool take(Number& number) {
        if (rest_.size() < sizeof(Number)) return false;
        std::make_unsigned_t<Number> bits = 0;
        for (std::size_t i = sizeof(Number); i-- > 0;) bits = bits << 8U | static_cast<unsigned char>(rest_[i]);
        number = static_cast<Number>(bits);
        rest_.remove_prefix(sizeof(Number));
        return true;
    }

    bool take(std::string& text) {
        uint64_t length = 0;
        if (!take(length) || length > rest_.size()) return false;
        text = rest_.substr(0, length);
        rest_.remove_prefix(length);
        return true;
    }

    bool takeParameter(IPCMessage& message) {
        std::string name;
        IPCMessage::IPCParameter parameter;
        if (!take(name) || !take(parameter.value) || !take(parameter.type)) return false;
        message.params.emplace_hint(message.params.end(), std::move(name), std::move(parameter));
        return true;
    }

    std::string_view rest_;
};

}  // namespace

bool encodeMessage(const IPCMessage& message, std::string& payload) noexcept {
    try {
        const std::size_t size = payloadSize(message);
        if (size > MAX_FRAME_PAYLOAD) return false;
        payload = PREFIX;
        payload.reserve(size);
        for (const int32_t number : {message.operation, message.commandID, message.result}) append(payload, number);
        append(payload, uint64_t{message.params.size()});
        for (const auto& [name, parameter] : message.params) {
            for (const std::string* text : {&name, &parameter.value, &parameter.type}) append(payload, *text);
        }
        return true;
    } catch (...) {
        return false;
    }
}

bool decodeMessage(std::span<const char> payload, IPCMessage& message) noexcept {
    try {
        IPCMessage read;
        if (payload.size() > MAX_FRAME_PAYLOAD) return false;
        if (!PayloadReader({payload.data(), payload.size()}).read(read)) return false;
        message = std::move(read);
        return true;
    } catch (...) {
        return false;
    }
}

std::string frameHeader(std::size_t size) {
    std::string header;
    for (unsigned shift = 32; shift > 0; shift -= 8) header += static_cast<char>(size >> (shift - 8) & 0xffU);
    return header;
}

std::size_t frameLength(std::span<const char, FRAME_HEADER_SIZE> header) {
    std::size_t length = 0;
    for (const char byte : header) length = length << 8U | static_cast<unsigned char>(byte);
    return length;
}
