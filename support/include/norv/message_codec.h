#pragma once

#include "norv/ipc_message.h"

#include <cstddef>
#include <span>
#include <string>

/// Bytes of payload that one frame may carry; the 4 length bytes in front are not counted.
inline constexpr std::size_t MAX_FRAME_PAYLOAD = std::size_t{16} * 1024 * 1024;
/// The big-endian length in front of each payload.
inline constexpr std::size_t FRAME_HEADER_SIZE = 4;

/// The payload of a message (without the length in front). False when it would exceed MAX_FRAME_PAYLOAD.
bool encodeMessage(const IPCMessage& message, std::string& payload) noexcept;

/// Reads a payload. False, with `message` untouched, when it is not exactly one message: a length beyond what is left
/// (refused before anything is allocated), an unknown type, bytes left over.
bool decodeMessage(std::span<const char> payload, IPCMessage& message) noexcept;

/// The four bytes in front of a payload of `size` bytes.
std::string frameHeader(std::size_t size);
/// The payload length that the four bytes of a header announce.
std::size_t frameLength(std::span<const char, FRAME_HEADER_SIZE> header);
