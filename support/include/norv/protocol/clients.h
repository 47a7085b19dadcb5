#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <string>

namespace protocol {

/// A file server tells who has connected to one of its shares, and which of its processes serves him.
struct NoteShareUser {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = static_cast<IPCMessage::CommandID>(141);
    using Reply = Nothing;
    int32_t process = 0;
    std::string share;
    std::string path;  ///< the share's folder
    std::string user;
    std::string address;

    static void visit(auto& record, auto&& field) {
        field("Process", record.process);
        field("Share", record.share);
        field("Path", record.path);
        field("User", record.user);
        field("Address", record.address);
    }
};

/// He has gone.
struct ForgetShareUser {
    static constexpr auto KIND = IPCMessage::STOP;
    static constexpr auto COMMAND = NoteShareUser::COMMAND;
    using Reply = Nothing;
    int32_t process = 0;
    std::string share;
    std::string user;  ///< empty: whoever had it open

    static void visit(auto& record, auto&& field) {
        field("Process", record.process);
        field("Share", record.share);
        field("User", record.user);
    }
};

}  // namespace protocol
