#pragma once

#include "norv/protocol/call.h"

#include <string>

namespace protocol {

inline constexpr const char* FORMAT_OPENMETRICS = "openmetrics";
inline constexpr const char* FORMAT_PROMETHEUS = "prometheus";  ///< its own older one

struct Metrics {
    std::string text;

    static void visit(auto& record, auto&& field) { field("Text", record.text); }
};

/// What the service has counted and measured.
struct GetMetrics {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = static_cast<IPCMessage::CommandID>(140);
    using Reply = Metrics;
    std::string format = FORMAT_OPENMETRICS;

    static void visit(auto& record, auto&& field) { field("Format", record.format); }
};

}  // namespace protocol
