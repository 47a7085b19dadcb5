#include "norv/message_codec.h"

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

/// A payload is a message or it is refused; a message that was read is written and read again to the same bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    IPCMessage message;
    if (!decodeMessage(std::span(reinterpret_cast<const char*>(data), size), message)) return 0;
    std::string payload;
    IPCMessage again;
    std::string payloadAgain;
    if (!encodeMessage(message, payload) || !decodeMessage(payload, again)) std::abort();
    if (!encodeMessage(again, payloadAgain) || payload != payloadAgain) std::abort();
    return 0;
}
