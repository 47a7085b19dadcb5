#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <string>

namespace protocol {

/// Is there a configuration document that can be read?
struct CheckConfiguration {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::CONFIG_FILE_CHECK;
    using Reply = Nothing;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

/// The configuration document as the console sees it.
struct Configuration {
    std::string content;       ///< XML
    int64_t lastModified = 0;  ///< its stamp, seconds since the epoch

    static void visit(auto& record, auto&& field) {
        field("Content", record.content);
        field("LastModified", record.lastModified);
    }
};

struct GetConfiguration {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::CONFIG_FILE_STATE;
    using Reply = Configuration;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

}  // namespace protocol
