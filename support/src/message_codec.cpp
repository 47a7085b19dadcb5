#include "norv/message_codec.h"

#include <cereal/archives/portable_binary.hpp>
#include <cereal/types/map.hpp>
#include <cereal/types/memory.hpp>
#include <cereal/types/polymorphic.hpp>
#include <cereal/types/string.hpp>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <sstream>
#include <streambuf>
#include <utility>

// What goes over the wire, in this order; cereal finds these by the types' namespace.

template <typename Archive>
static void serialize(Archive& archive, IPCMessage::IPCParameter& parameter) {
    archive(parameter.value, parameter.type);
}

template <typename Archive>
static void serialize(Archive& archive, IPCMessage& message) {
    archive(message.operation, message.commandID, message.result, message.params);
}

namespace {

/// In front of every message: little-endian, the declared type itself (cereal's id for it), not null.
constexpr std::array<char, 6> PREFIX = {1, 0, 0, 0, 0x40, 1};
constexpr std::size_t NUMBERS_SIZE = 3 * sizeof(int32_t);
constexpr std::size_t COUNT_SIZE = sizeof(uint64_t);
/// Name, value and type tag each have a length.
constexpr std::size_t TEXTS_PER_PARAMETER = 3;

/// Bytes in memory as a stream to read from, without a copy.
class SpanBuffer : public std::streambuf {
public:
    explicit SpanBuffer(std::span<const char> bytes) {
        char* const begin =
            const_cast<char*>(bytes.data());  // NOLINT(cppcoreguidelines-pro-type-const-cast): read only
        setg(begin, begin, begin + bytes.size());
    }
};

/// Walks over a payload and says whether every length in it fits, before anything is allocated by such a length.
class PayloadWalk {
public:
    explicit PayloadWalk(std::span<const char> payload) : rest_(payload) {}

    bool isMessage() {
        uint64_t count = 0;
        if (!skipPrefix() || !skip(NUMBERS_SIZE) || !takeCount(count)) return false;
        if (count > rest_.size() / (TEXTS_PER_PARAMETER * COUNT_SIZE)) return false;
        for (uint64_t i = 0; i < count * TEXTS_PER_PARAMETER; ++i) {
            if (!skipText()) return false;
        }
        return rest_.empty();
    }

private:
    bool skip(uint64_t count) {
        if (count > rest_.size()) return false;
        rest_ = rest_.subspan(static_cast<std::size_t>(count));
        return true;
    }

    bool skipPrefix() {
        return rest_.size() >= PREFIX.size() && std::equal(PREFIX.begin(), PREFIX.end(), rest_.begin()) &&
               skip(PREFIX.size());
    }

    bool takeCount(uint64_t& count) {
        if (rest_.size() < COUNT_SIZE) return false;
        count = 0;
        for (std::size_t i = COUNT_SIZE; i-- > 0;) count = count << 8U | static_cast<unsigned char>(rest_[i]);
        return skip(COUNT_SIZE);
    }

    bool skipText() {
        uint64_t length = 0;
        return takeCount(length) && skip(length);
    }

    std::span<const char> rest_;
};

std::size_t payloadSize(const IPCMessage& message) {
    std::size_t size = PREFIX.size() + NUMBERS_SIZE + COUNT_SIZE;
    for (const auto& [name, parameter] : message.params) {
        size += TEXTS_PER_PARAMETER * COUNT_SIZE + name.size() + parameter.value.size() + parameter.type.size();
    }
    return size;
}

}  // namespace

bool encodeMessage(const IPCMessage& message, std::string& payload) noexcept {
    try {
        if (payloadSize(message) > MAX_FRAME_PAYLOAD) return false;
        std::ostringstream out;
        const auto options = cereal::PortableBinaryOutputArchive::Options::LittleEndian();
        cereal::PortableBinaryOutputArchive(out, options)(std::make_unique<IPCMessage>(message));
        payload = std::move(out).str();
        return true;
    } catch (...) {
        return false;
    }
}

bool decodeMessage(std::span<const char> payload, IPCMessage& message) noexcept {
    try {
        if (payload.size() > MAX_FRAME_PAYLOAD || !PayloadWalk(payload).isMessage()) return false;
        SpanBuffer buffer(payload);
        std::istream in(&buffer);
        cereal::PortableBinaryInputArchive archive(in);
        std::unique_ptr<IPCMessage> read;
        archive(read);
        if (!read) return false;
        message.operation = read->operation;
        message.commandID = read->commandID;
        message.result = read->result;
        message.params.swap(read->params);
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
