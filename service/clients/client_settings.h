#pragma once

#include "norv/norv_config.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace keldra {

/// Who else may have files scanned, and how much of it.
struct ClientSettings {
    bool enabled = false;
    std::string socket = "/run/keldra/clamd.sock";  ///< Unix socket; empty: none
    std::string group;                              ///< that may connect to it, beside the service's own; may be empty
    bool everyUser = false;                         ///< any local user may connect
    std::vector<std::string> addresses;             ///< "address:port" to listen on by TCP; none by default
    bool refuseIncomplete = false;  ///< answer ERROR, not OK, where the engine met a limit or something encrypted
    std::uint64_t streamLimit = std::uint64_t{100} << 20U;   ///< bytes of one stream
    std::uint64_t streamMemory = std::uint64_t{512} << 20U;  ///< bytes of all streams that are held at a time
    std::size_t connections = 200;                           ///< in all
    std::size_t connectionsEach = 100;                       ///< of one client (a local user, or an address)
    std::size_t scansEach = 16;            ///< files of one client that are scanned or wait, at a time
    std::chrono::seconds commandTime{30};  ///< for a command to arrive
    std::chrono::seconds readTime{120};    ///< between two pieces of a stream
    std::chrono::seconds sendTime{60};     ///< for a reply to be taken

    bool operator==(const ClientSettings&) const = default;
};

/// The settings of the document's group "Clients"; a value that is not there, or out of its range, is the default.
ClientSettings clientSettings(const NORVConfig& config);

}  // namespace keldra
