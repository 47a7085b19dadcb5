#pragma once

#include "norv/au_config.h"
#include "norv/protocol/call.h"

#include <cstdint>
#include <string>

namespace protocol {

struct StartManualUpdate {
    static constexpr auto KIND = IPCMessage::START;
    static constexpr auto COMMAND = IPCMessage::MANUAL_UPDATE;
    static constexpr const char* PARAMETER = "ManualAUConfig";
    using Reply = Nothing;
    std::string requestId;  ///< chosen by who asks
    NORVManualAUConfig settings;

    static void visit(auto& record, auto&& field) {
        field("RequestID", record.requestId);
        field(PARAMETER, record.settings);
    }
};

/// The update that runs, or the last one.
struct UpdateProgress {
    bool running = false;
    bool scheduled = false;
    std::string requestId;
    int32_t progress = 0;  ///< tenths
    int64_t started = 0;   ///< seconds since the epoch
    int64_t ended = 0;     ///< seconds since the epoch
    bool succeeded = false;
    bool installed = false;  ///< and something new came
    std::string message;

    static void visit(auto& record, auto&& field) {
        field("Running", record.running);
        field("Scheduled", record.scheduled);
        field("RequestID", record.requestId);
        field("Progress", record.progress);
        field("Started", record.started);
        field("Ended", record.ended);
        field("Succeeded", record.succeeded);
        field("Installed", record.installed);
        field("Message", record.message);
    }
};

struct GetUpdateProgress {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::UPDATE_STATUS;
    using Reply = UpdateProgress;
    static void visit(auto& /*record*/, auto&& /*field*/) {}
};

}  // namespace protocol
