#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace keldra {

/// What a client of the clamd protocol asks for (man page clamd(8), "COMMANDS").
struct ClamdCommand {
    enum class Kind : std::uint8_t {
        UNKNOWN,
        PING,
        VERSION,
        VERSION_COMMANDS,
        STATS,
        RELOAD,
        SHUTDOWN,
        SCAN,        ///< a path, up to the first find
        CONT_SCAN,   ///< a path, all of it
        MULTI_SCAN,  ///< the same, several files at a time
        ALL_MATCH,   ///< as SCAN: the engine tells the first signature of a file
        STREAM,
        DESCRIPTOR,
        SESSION,
        END
    };

    Kind kind = Kind::UNKNOWN;
    std::string path;  ///< of the kinds that scan one
};

/// Reads a command without its prefix and its end. Commands with words that they do not take are unknown, as are the
/// two that clamd knows in their prefixed form only when `prefixed` is false.
ClamdCommand parseClamdCommand(std::string_view text, bool prefixed);

/// Whether a session (IDSESSION) takes the command.
bool allowedInSession(ClamdCommand::Kind kind);

/// The names of all commands, as the reply to VERSIONCOMMANDS lists them.
std::string clamdCommandNames();

}  // namespace keldra
