#pragma once

#include "service/server/caller.h"
#include "service/server/parts.h"

#include <cstdint>

namespace keldra {

/// What must hold before a command's handler runs.
enum class Needs : std::uint8_t { NOTHING, CONFIGURATION };

/// Who may send a command, of those who may connect at all. OWNER: root and the service's own user. LOGGED_ON: others
/// too (the web server's user), on a connection that has proved a session which still lives. EVERYBODY: also without.
/// FIRST: the same, also while the password must be changed before anything else.
enum class Right : std::uint8_t { EVERYBODY, FIRST, LOGGED_ON, OWNER };

/// Where a command's handler runs. What is answered from memory, but for a rare look at a file, is done AT_ONCE, on the
/// thread that received it: a page of the console asks several such questions, and each change of threads would cost as
/// much as the answer. IN_TURN: like LOG_ON, but of those who wait the ones first that asked least.
enum class Runs : std::uint8_t { AT_ONCE, GENERAL, SAVING, FOLDERS, LOG_ON, IN_TURN };

/// What a command that was done proves about its connection. THIS_SESSION: that it has the session the request names;
/// NEW_SESSION: the one that the reply names.
enum class Proves : std::uint8_t { NONE, THIS_SESSION, NEW_SESSION };

/// Turns a request into a reply. `reply` comes with the request's kind and command and without parameters. Returns
/// whether what was asked is done; of a refusal only the parameter "Message" is sent.
using Handler = bool (*)(const Parts& parts, const Caller& caller, const IPCMessage& request, IPCMessage& reply);

/// A row of the command table.
struct Command {
    std::int32_t commandID;
    std::int32_t operation;
    Right right;
    Needs needs;
    Runs runs;
    const char* name;
    Handler handler;
    Proves proves = Proves::NONE;
    Handler gate = nullptr;  ///< runs at once and first; what it refuses never waits for a thread
};

/// The row for a request, null when there is none.
const Command* findCommand(const IPCMessage& request);

/// Whether the caller may send this command now.
bool mayUse(const Parts& parts, const Command& command, const Caller& caller);

/// Runs a handler of the row: result 1 when it did what was asked, 2 otherwise.
IPCMessage answerWith(Handler handler, const Parts& parts, const Command& command, const Caller& caller,
                      const IPCMessage& request);

/// Why something is refused that may well be done a moment later.
inline constexpr const char* TOO_MUCH = "Too much is being done already. Try again in a moment.";

inline constexpr const char* TOO_MANY_LOGONS = "Too many are trying to log on. Try again in a minute.";

/// A reply with result 2. `why`: an English sentence, may be empty.
IPCMessage refusal(const IPCMessage& request, const char* why);

}  // namespace keldra
