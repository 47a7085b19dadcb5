#include "norv/message_codec.h"

#include <gtest/gtest.h>
#include <cereal/archives/portable_binary.hpp>
#include <cereal/types/map.hpp>
#include <cereal/types/memory.hpp>
#include <cereal/types/polymorphic.hpp>
#include <cereal/types/string.hpp>

#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

// cereal finds these by the types' namespace.

template <typename Archive>
static void serialize(Archive& archive, IPCMessage::IPCParameter& parameter) {
    archive(parameter.value, parameter.type);
}

template <typename Archive>
static void serialize(Archive& archive, IPCMessage& message) {
    archive(message.operation, message.commandID, message.result, message.params);
}

namespace {

using namespace std::string_literals;

const std::string PREFIX = "\x01\x00\x00\x00\x40\x01"s;
const std::string NUMBERS = "\x05\x00\x00\x00\x1f\x00\x00\x00\x02\x00\x00\x00"s;

/// A 64-bit little-endian number.
std::string number64(uint64_t number) {
    std::string bytes;
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>(number >> (8 * i) & 0xffU);
    return bytes;
}

std::string text(const std::string& bytes) { return number64(bytes.size()) + bytes; }

std::string goodPayload() {
    return PREFIX + NUMBERS + number64(2) + text("A") + text("x\0y"s) + text("text") + text("Bc") + text("") +
           text("text");
}

IPCMessage goodMessage() {
    IPCMessage message(IPCMessage::SESSION, IPCMessage::PASSWORD_LOGON);
    message.result = IPCMessage::RESULT_ERROR;
    message.addParam("Bc", "");
    message.addParam("A", "x\0y"s);
    return message;
}

bool decodes(std::string_view payload) {
    IPCMessage message = goodMessage();
    const bool decoded = decodeMessage(payload, message);
    if (!decoded) {
        EXPECT_EQ("x\0y"s, message.value<std::string>("A")) << "a refused payload changed the message";
    }
    return decoded;
}

/// A message whose payload has `size` bytes.
IPCMessage messageOfSize(std::size_t size) {
    IPCMessage message;
    message.addParam("", std::string(size - PREFIX.size() - NUMBERS.size() - 8 - 3 * 8 - "text"s.size(), 'x'));
    return message;
}

TEST(MessageCodec, ProgramsOfOtherVersionsUnderstandTheBytes) {
    std::string payload;
    ASSERT_TRUE(encodeMessage(goodMessage(), payload));
    EXPECT_EQ(goodPayload(), payload);
}

TEST(MessageCodec, CerealReadsAndWritesTheSameBytes) {
    std::stringstream stream;
    const auto options = cereal::PortableBinaryOutputArchive::Options::LittleEndian();
    cereal::PortableBinaryOutputArchive(stream, options)(std::make_unique<IPCMessage>(goodMessage()));
    EXPECT_EQ(goodPayload(), stream.str());
    std::unique_ptr<IPCMessage> read;
    cereal::PortableBinaryInputArchive archive(stream);
    archive(read);
    ASSERT_TRUE(read);
    EXPECT_EQ("x\0y"s, read->value<std::string>("A"));
}

TEST(MessageCodec, AMessageArrivesAsItWasSent) {
    IPCMessage message;
    ASSERT_TRUE(decodeMessage(goodPayload(), message));
    EXPECT_EQ(IPCMessage::SESSION, message.operation);
    EXPECT_EQ(IPCMessage::PASSWORD_LOGON, message.commandID);
    EXPECT_EQ(IPCMessage::RESULT_ERROR, message.result);
    ASSERT_EQ(2U, message.params.size());
    EXPECT_EQ("x\0y"s, message.params["A"].value);
    EXPECT_EQ("text", message.params["A"].type);
    EXPECT_EQ("", message.params["Bc"].value);
}

TEST(MessageCodec, HostilePayloadsAreRefused) {
    const std::string header = PREFIX + NUMBERS;
    const std::string parameter = text("A") + text("x") + text("text");
    const struct {
        const char* what;
        std::string payload;
    } cases[] = {
        {"trailing byte", goodPayload() + "x"},
        {"big-endian", "\x00\x40\x00\x00\x00\x01"s + NUMBERS + number64(0)},
        {"null pointer", "\x01\x00\x00\x00\x40\x00"s},
        {"null of a polymorphic type", "\x01\x00\x00\x00\x00"s},
        {"another type by number", "\x01\x01\x00\x00\x00\x01"s + NUMBERS + number64(0)},
        {"another type by name", "\x01\x01\x00\x00\x80"s + text("Other") + "\x01" + NUMBERS + number64(0)},
        {"one parameter too few", header + number64(2) + parameter},
        {"one parameter too many", header + number64(1) + parameter + parameter},
        {"a count of 2^64-1", header + number64(~uint64_t{0}) + parameter},
        {"a count whose byte count overflows", header + number64(uint64_t{1} << 61U) + parameter},
        {"a name of 2^64-1 bytes", header + number64(1) + number64(~uint64_t{0}) + std::string(40, 'x')},
        {"a value of 1 TiB", header + number64(1) + text("A") + number64(uint64_t{1} << 40U) + std::string(40, 'x')},
        {"a tag one byte too long", header + number64(1) + text("A") + text("x") + number64(5) + "text"},
        {"beyond the limit", std::string(MAX_FRAME_PAYLOAD + 1, '\0')},
    };
    for (const auto& c : cases) EXPECT_FALSE(decodes(c.payload)) << c.what;
}

TEST(MessageCodec, APayloadThatEndsEarlyIsRefused) {
    const std::string payload = goodPayload();
    for (std::size_t size = 0; size < payload.size(); ++size) {
        EXPECT_FALSE(decodes(std::string_view(payload).substr(0, size))) << size << " bytes";
    }
}

TEST(MessageCodec, SixteenMebibytesAreCarriedAndNotOneByteMore) {
    std::string payload;
    ASSERT_TRUE(encodeMessage(messageOfSize(MAX_FRAME_PAYLOAD), payload));
    EXPECT_EQ(MAX_FRAME_PAYLOAD, payload.size());
    EXPECT_TRUE(decodes(payload));
    EXPECT_FALSE(encodeMessage(messageOfSize(MAX_FRAME_PAYLOAD + 1), payload));
}

TEST(MessageCodec, TheLengthInFrontIsBigEndian) {
    EXPECT_EQ("\x01\x00\x02\xff"s, frameHeader(0x010002ff));
    const std::string header = "\xff\xff\xff\xfe";
    EXPECT_EQ(0xfffffffeU, frameLength(std::span<const char, 4>(header.data(), 4)));
}

TEST(Message, TheFirstValueOfANameStays) {
    IPCMessage message;
    message.addParam("RequestID", "first");
    message.addParam("RequestID", "second");
    message.addParam("Null", static_cast<const char*>(nullptr));
    message.addParam("Number", 42);
    message.addParam("Word", "12 monkeys");
    EXPECT_EQ("first", message.value<std::string>("RequestID"));
    EXPECT_EQ("", message.value<std::string>("Null"));
    EXPECT_EQ(42, message.value<int>("Number"));
    EXPECT_EQ(12, message.value<long>("Word"));
    EXPECT_EQ(0, message.value<int>("RequestID"));
    EXPECT_EQ("", message.value<std::string>("Missing"));
}

}  // namespace
