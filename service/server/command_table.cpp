#include "service/server/command_table.h"

#include "norv/log.h"
#include "norv/protocol/clients.h"
#include "norv/protocol/metrics.h"
#include "norv/protocol/notices.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/service_settings.h"
#include "service/access/password.h"
#include "service/access/session_store.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"

#include <algorithm>
#include <array>
#include <exception>
#include <new>
#include <system_error>
#include <type_traits>

namespace keldra {

namespace {

/// Calls a handler with the parts that its parameters name, and with what belongs to the request.
template <auto handler>
struct With;

template <typename... Wanted, bool (*handler)(Wanted...)>
struct With<handler> {
    static bool call(const Parts& parts, const Caller& caller, const IPCMessage& request, IPCMessage& reply) {
        return handler(pick<Wanted>(parts, caller, request, reply)...);
    }

private:
    template <typename Part>
    static Part pick(const Parts& parts, const Caller& caller, const IPCMessage& request, IPCMessage& reply) {
        if constexpr (std::is_same_v<Part, const Caller&>)
            return caller;
        else if constexpr (std::is_same_v<Part, const IPCMessage&>)
            return request;
        else if constexpr (std::is_same_v<Part, IPCMessage&>)
            return reply;
        else
            return std::get<Part>(parts);
    }
};

template <auto handler>
constexpr Handler WITH = With<handler>::call;

using M = IPCMessage;
using enum IPCMessage::Operation;
using enum Right;
using enum Needs;
using enum Runs;
using enum Proves;
namespace h = handlers;

constexpr std::array COMMANDS{
    // What the console's programs ask before they know whose request they have.
    Command{M::CONFIG_FILE_CHECK, GET, EVERYBODY, CONFIGURATION, AT_ONCE, "check configuration",
            WITH<h::checkConfiguration>},
    Command{M::CONFIG_FILE_STATE, GET, EVERYBODY, CONFIGURATION, AT_ONCE, "get configuration",
            WITH<h::getConfiguration>},
    Command{M::PASSWORD_LOGON, SESSION, EVERYBODY, NOTHING, IN_TURN, "log on", WITH<h::logOn>, NEW_SESSION,
            WITH<h::admitLogOn>},
    Command{M::SECOND_STEP, SESSION, EVERYBODY, NOTHING, LOG_ON, "second step", WITH<h::logOnSecondStep>, NEW_SESSION,
            WITH<h::admitCode>},
    Command{M::SESSION_LOGOFF, SESSION, EVERYBODY, NOTHING, GENERAL, "log off", WITH<h::logOff>},
    Command{M::SESSION_CHECK, SESSION, EVERYBODY, NOTHING, AT_ONCE, "check session", WITH<h::checkSession>,
            THIS_SESSION},
    Command{M::SESSION_WATCH, SESSION, EVERYBODY, NOTHING, AT_ONCE, "watch session", WITH<h::watchSession>,
            THIS_SESSION},

    Command{M::REALTIME_SCAN_CONFIG, GET, LOGGED_ON, CONFIGURATION, AT_ONCE, "get real-time scan",
            WITH<h::getRealtimeScan>},
    Command{M::REALTIME_SCAN_CONFIG, SET, LOGGED_ON, CONFIGURATION, SAVING, "set real-time scan",
            WITH<h::setRealtimeScan>},
    Command{M::MANUAL_SCAN_CONFIG, GET, LOGGED_ON, CONFIGURATION, AT_ONCE, "get manual scan", WITH<h::getManualScan>},
    Command{M::MANUAL_SCAN_CONFIG, SET, LOGGED_ON, CONFIGURATION, SAVING, "set manual scan", WITH<h::setManualScan>},
    Command{M::SCHEDULED_SCAN_CONFIG, GET, LOGGED_ON, CONFIGURATION, AT_ONCE, "get scheduled scan",
            WITH<h::getScheduledScan>},
    Command{M::SCHEDULED_SCAN_CONFIG, SET, LOGGED_ON, CONFIGURATION, SAVING, "set scheduled scan",
            WITH<h::setScheduledScan>},
    Command{M::SCHEDULED_UPDATE_CONFIG, GET, LOGGED_ON, CONFIGURATION, AT_ONCE, "get scheduled update",
            WITH<h::getScheduledUpdate>},
    Command{M::SCHEDULED_UPDATE_CONFIG, SET, LOGGED_ON, CONFIGURATION, SAVING, "set scheduled update",
            WITH<h::setScheduledUpdate>},

    Command{M::MANUAL_SCAN_STATUS, GET, LOGGED_ON, NOTHING, AT_ONCE, "get scan status", WITH<h::getScanStatus>},
    Command{M::VIRUS_TYPES, GET, LOGGED_ON, NOTHING, AT_ONCE, "get virus types", WITH<h::getVirusTypes>},
    Command{M::MANUAL_UPDATE, START, LOGGED_ON, CONFIGURATION, GENERAL, "start update", WITH<h::startManualUpdate>},
    Command{M::MANUAL_SCAN, START, LOGGED_ON, CONFIGURATION, GENERAL, "start manual scan", WITH<h::startManualScan>},
    Command{M::MANUAL_SCAN, STOP, LOGGED_ON, NOTHING, GENERAL, "stop manual scan", WITH<h::stopScan>},
    // Any path, shares or not, and acting on it: not for the web server's user.
    Command{M::PATH_SCAN, START, OWNER, NOTHING, GENERAL, "start path scan", WITH<h::startPathScan>},
    Command{M::PATH_SCAN, STOP, OWNER, NOTHING, GENERAL, "stop path scan", WITH<h::stopScan>},
    Command{protocol::PauseScan::COMMAND, START, LOGGED_ON, NOTHING, GENERAL, "pause scan", WITH<h::pauseScan>},
    Command{protocol::ResumeScan::COMMAND, STOP, LOGGED_ON, NOTHING, GENERAL, "resume scan", WITH<h::resumeScan>},
    Command{M::SCAN_FINDS, GET, LOGGED_ON, NOTHING, GENERAL, "get finds", WITH<h::getScanFinds>},
    Command{M::SCAN_HISTORY, GET, LOGGED_ON, NOTHING, GENERAL, "get scans", WITH<h::getScanHistory>},
    Command{M::SERVICE_STATUS, GET, LOGGED_ON, NOTHING, GENERAL, "get status", WITH<h::getServiceStatus>},
    Command{M::UPDATE_STATUS, GET, LOGGED_ON, NOTHING, AT_ONCE, "get update status", WITH<h::getUpdateStatus>},

    Command{M::QUARANTINE, GET, LOGGED_ON, NOTHING, GENERAL, "list quarantine", WITH<h::listQuarantine>},
    Command{M::QUARANTINE_ITEM, GET, LOGGED_ON, NOTHING, GENERAL, "show quarantined", WITH<h::showQuarantined>},
    Command{M::QUARANTINE_ITEM, START, LOGGED_ON, NOTHING, GENERAL, "restore quarantined", WITH<h::restoreQuarantined>},
    Command{M::QUARANTINE_ITEM, STOP, LOGGED_ON, NOTHING, GENERAL, "delete quarantined", WITH<h::deleteQuarantined>},
    Command{M::QUARANTINE_TRUST, GET, LOGGED_ON, NOTHING, GENERAL, "list trusted", WITH<h::listTrusted>},
    Command{M::QUARANTINE_TRUST, START, LOGGED_ON, NOTHING, GENERAL, "trust quarantined", WITH<h::trustQuarantined>},
    Command{M::QUARANTINE_TRUST, STOP, LOGGED_ON, NOTHING, GENERAL, "distrust", WITH<h::distrust>},

    Command{M::FOLDER_LIST, GET, LOGGED_ON, NOTHING, FOLDERS, "list folders", WITH<h::listFolders>},
    Command{M::EXCLUDE_PREVIEW, GET, LOGGED_ON, NOTHING, FOLDERS, "preview excludes", WITH<h::previewExcludes>},

    Command{M::SESSIONS, GET, LOGGED_ON, NOTHING, AT_ONCE, "list sessions", WITH<h::listSessions>},
    Command{M::SESSIONS, STOP, LOGGED_ON, NOTHING, GENERAL, "end session", WITH<h::endSession>},
    Command{M::LOGON_BLOCK, STOP, LOGGED_ON, NOTHING, AT_ONCE, "lift block", WITH<h::liftBlock>},
    Command{M::CONSOLE_PASSWORD, SET, FIRST, NOTHING, LOG_ON, "change password", WITH<h::changePassword>, NONE,
            WITH<h::admitPasswordChange>},
    Command{M::SECOND_FACTOR, GET, FIRST, NOTHING, GENERAL, "get second step", WITH<h::getSecondFactor>},
    Command{M::SECOND_FACTOR, START, LOGGED_ON, NOTHING, LOG_ON, "begin second step", WITH<h::beginSecondFactor>, NONE,
            WITH<h::admitPasswordChange>},
    Command{M::SECOND_FACTOR, SET, LOGGED_ON, NOTHING, GENERAL, "confirm second step", WITH<h::confirmSecondFactor>},
    Command{M::SECOND_FACTOR, STOP, LOGGED_ON, NOTHING, LOG_ON, "remove second step", WITH<h::removeSecondFactor>, NONE,
            WITH<h::admitPasswordChange>},
    Command{M::CONSOLE_PASSWORD, START, OWNER, NOTHING, GENERAL, "note password", WITH<h::notePassword>},

    Command{M::EVENTS, GET, LOGGED_ON, NOTHING, GENERAL, "list events", WITH<h::listEvents>},
    Command{M::DAILY_FIGURES, GET, LOGGED_ON, NOTHING, GENERAL, "get daily figures", WITH<h::getDailyFigures>},

    // Programs that watch the server log nobody on; none of it names a file, a user or an address.
    Command{protocol::GetMetrics::COMMAND, GET, EVERYBODY, NOTHING, GENERAL, "get metrics", WITH<h::getMetrics>},
    // Who is connected is taken for true in the events.
    Command{protocol::NoteShareUser::COMMAND, START, OWNER, NOTHING, AT_ONCE, "note share user",
            WITH<h::noteShareUser>},
    Command{protocol::ForgetShareUser::COMMAND, STOP, OWNER, NOTHING, AT_ONCE, "forget share user",
            WITH<h::forgetShareUser>},
    Command{protocol::GetNotices::COMMAND, GET, LOGGED_ON, NOTHING, GENERAL, "get notices", WITH<h::getNotices>},
    Command{protocol::GetNotices::COMMAND, SET, LOGGED_ON, NOTHING, SAVING, "set notices", WITH<h::setNotices>},
    // Waits for servers that may not answer.
    Command{protocol::GetNotices::COMMAND, START, LOGGED_ON, NOTHING, GENERAL, "test notices", WITH<h::testNotices>},
    Command{protocol::SERVICE_SETTINGS, GET, LOGGED_ON, CONFIGURATION, GENERAL, "get settings", WITH<h::getSettings>},
    Command{protocol::SERVICE_SETTINGS, SET, LOGGED_ON, CONFIGURATION, SAVING, "set settings", WITH<h::setSettings>},
    Command{protocol::SHARE_PROPOSALS, GET, LOGGED_ON, NOTHING, FOLDERS, "propose shares", WITH<h::listShareProposals>},
};

bool ready(const Parts& parts, const Command& command, IPCMessage& reply) {
    auto& configuration = std::get<ConfigurationStore&>(parts);
    if (command.needs != CONFIGURATION || configuration.refresh()) return true;
    return handlers::refuse("The configuration cannot be used: " + configuration.error(), reply);
}

/// A refusal carries nothing that could be taken for a result.
void keepMessageOnly(IPCMessage& reply) {
    std::erase_if(reply.params, [](const auto& parameter) { return parameter.first != protocol::MESSAGE; });
}

/// Tells of what failed for want of memory or threads; for want of memory it may have to go unsaid.
void tellWant(const std::exception& error, IPCMessage& reply) noexcept try {
    const auto* const failure = dynamic_cast<const std::system_error*>(&error);
    const bool noThread = failure && failure->code() == std::errc::resource_unavailable_try_again;
    if (!noThread && !dynamic_cast<const std::bad_alloc*>(&error)) return;
    reply.params.clear();
    reply.addParam(protocol::MESSAGE, TOO_MUCH);
} catch (const std::bad_alloc&) {
    return;
}

IPCMessage replyTo(const IPCMessage& request) {
    IPCMessage reply;
    reply.operation = request.operation;
    reply.commandID = request.commandID;
    return reply;
}

}  // namespace

const Command* findCommand(const IPCMessage& request) {
    const auto* const found = std::find_if(COMMANDS.begin(), COMMANDS.end(), [&request](const Command& command) {
        return command.commandID == request.commandID && command.operation == request.operation;
    });
    return found == COMMANDS.end() ? nullptr : found;
}

bool mayUse(const Parts& parts, const Command& command, const Caller& caller) {
    if (caller.owner || command.right == EVERYBODY) return true;
    if (command.right == OWNER || caller.session.empty()) return false;
    auto& password = std::get<PasswordFile&>(parts);
    if (command.right != FIRST && password.mustChange()) return false;
    return std::get<SessionStore&>(parts).lives(caller.session, password.mark());
}

IPCMessage answerWith(Handler handler, const Parts& parts, const Command& command, const Caller& caller,
                      const IPCMessage& request) {
    IPCMessage reply = replyTo(request);
    bool done = false;
    try {
        done = ready(parts, command, reply) && handler(parts, caller, request, reply);
    } catch (const std::exception& error) {
        NORV_LOG(NORV_LOG_ERROR, "Command %d failed: %s", request.commandID, error.what());
        tellWant(error, reply);
    }
    reply.result = done ? IPCMessage::RESULT_OK : IPCMessage::RESULT_ERROR;
    if (!done) keepMessageOnly(reply);
    NORV_TRACE("%s: result %d", command.name, reply.result);
    return reply;
}

IPCMessage refusal(const IPCMessage& request, const char* why) {
    IPCMessage reply = replyTo(request);
    reply.result = IPCMessage::RESULT_ERROR;
    if (*why) reply.addParam(protocol::MESSAGE, why);
    return reply;
}

}  // namespace keldra
