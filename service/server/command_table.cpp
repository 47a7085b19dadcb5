#include "service/server/command_table.h"

#include "norv/log.h"
#include "norv/protocol/service_settings.h"
#include "norv/protocol/notices.h"
#include "norv/protocol/scans.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace keldra {

namespace {

/// One command: turns a request into a reply. `reply` comes with the request's kind and command and without
/// parameters. Returns whether what was asked is done; of a refusal only the parameter "Message" is sent.
using Handler = bool (*)(Service& service, const IPCMessage& request, IPCMessage& reply);

/// What must hold before a command's handler runs.
enum class Needs : std::uint8_t { NOTHING, CONFIGURATION };

/// Where a command's handler runs. What is answered from memory, but for a rare look at a file, is done at once, on the
/// thread that received it: a page of the console asks several such questions, and each change of threads would cost as
/// much as the answer.
enum class Runs : std::uint8_t { IN_POOL, AT_ONCE };

/// A row of the command table.
struct Command {
    std::int32_t commandID;
    std::int32_t operation;
    Needs needs;
    const char* name;
    Handler handler;
    Runs runs = Runs::IN_POOL;
};

using enum IPCMessage::Operation;
using enum Needs;
using enum Runs;

constexpr std::array COMMANDS{
    Command{IPCMessage::CONFIG_FILE_CHECK, GET, CONFIGURATION, "check configuration", handlers::checkConfiguration,
            AT_ONCE},
    Command{IPCMessage::CONFIG_FILE_STATE, GET, CONFIGURATION, "get configuration", handlers::getConfiguration,
            AT_ONCE},
    Command{IPCMessage::REALTIME_SCAN_CONFIG, GET, CONFIGURATION, "get real-time scan", handlers::getRealtimeScan,
            AT_ONCE},
    Command{IPCMessage::REALTIME_SCAN_CONFIG, SET, CONFIGURATION, "set real-time scan", handlers::setRealtimeScan},
    Command{IPCMessage::MANUAL_SCAN_CONFIG, GET, CONFIGURATION, "get manual scan", handlers::getManualScan, AT_ONCE},
    Command{IPCMessage::MANUAL_SCAN_CONFIG, SET, CONFIGURATION, "set manual scan", handlers::setManualScan},
    Command{IPCMessage::SCHEDULED_SCAN_CONFIG, GET, CONFIGURATION, "get scheduled scan", handlers::getScheduledScan,
            AT_ONCE},
    Command{IPCMessage::SCHEDULED_SCAN_CONFIG, SET, CONFIGURATION, "set scheduled scan", handlers::setScheduledScan},
    Command{IPCMessage::MANUAL_SCAN_STATUS, GET, NOTHING, "get scan status", handlers::getScanStatus, AT_ONCE},
    Command{IPCMessage::VIRUS_TYPES, GET, NOTHING, "get virus types", handlers::getVirusTypes, AT_ONCE},
    Command{IPCMessage::SCHEDULED_UPDATE_CONFIG, GET, CONFIGURATION, "get scheduled update",
            handlers::getScheduledUpdate, AT_ONCE},
    Command{IPCMessage::SCHEDULED_UPDATE_CONFIG, SET, CONFIGURATION, "set scheduled update",
            handlers::setScheduledUpdate},
    Command{IPCMessage::MANUAL_UPDATE, START, CONFIGURATION, "start update", handlers::startManualUpdate},
    Command{IPCMessage::MANUAL_SCAN, START, CONFIGURATION, "start manual scan", handlers::startManualScan},
    Command{IPCMessage::MANUAL_SCAN, STOP, NOTHING, "stop manual scan", handlers::stopScan},
    Command{IPCMessage::PASSWORD_LOGON, SESSION, NOTHING, "log on", handlers::logOn},
    Command{IPCMessage::SESSION_LOGOFF, SESSION, NOTHING, "log off", handlers::logOff},
    Command{IPCMessage::SESSION_CHECK, SESSION, NOTHING, "check session", handlers::checkSession, AT_ONCE},
    Command{IPCMessage::SERVICE_STATUS, GET, NOTHING, "get status", handlers::getServiceStatus},
    Command{IPCMessage::PATH_SCAN, START, NOTHING, "start path scan", handlers::startPathScan},
    Command{IPCMessage::PATH_SCAN, STOP, NOTHING, "stop path scan", handlers::stopScan},
    Command{IPCMessage::SCAN_FINDS, GET, NOTHING, "get finds", handlers::getScanFinds},
    Command{IPCMessage::SCAN_HISTORY, GET, NOTHING, "get scans", handlers::getScanHistory},
    Command{IPCMessage::QUARANTINE, GET, NOTHING, "list quarantine", handlers::listQuarantine},
    Command{IPCMessage::QUARANTINE_ITEM, GET, NOTHING, "show quarantined", handlers::showQuarantined},
    Command{IPCMessage::QUARANTINE_ITEM, START, NOTHING, "restore quarantined", handlers::restoreQuarantined},
    Command{IPCMessage::QUARANTINE_ITEM, STOP, NOTHING, "delete quarantined", handlers::deleteQuarantined},
    Command{IPCMessage::QUARANTINE_TRUST, GET, NOTHING, "list trusted", handlers::listTrusted},
    Command{IPCMessage::QUARANTINE_TRUST, START, NOTHING, "trust quarantined", handlers::trustQuarantined},
    Command{IPCMessage::QUARANTINE_TRUST, STOP, NOTHING, "distrust", handlers::distrust},
    Command{IPCMessage::FOLDER_LIST, GET, NOTHING, "list folders", handlers::listFolders},
    Command{IPCMessage::EXCLUDE_PREVIEW, GET, NOTHING, "preview excludes", handlers::previewExcludes},
    Command{protocol::SERVICE_SETTINGS, GET, CONFIGURATION, "get settings", handlers::getSettings},
    Command{protocol::SERVICE_SETTINGS, SET, CONFIGURATION, "set settings", handlers::setSettings},
    Command{protocol::SHARE_PROPOSALS, GET, NOTHING, "propose shares", handlers::listShareProposals},
    Command{IPCMessage::UPDATE_STATUS, GET, NOTHING, "get update status", handlers::getUpdateStatus, AT_ONCE},
    Command{protocol::PauseScan::COMMAND, START, NOTHING, "pause scan", handlers::pauseScan},
    Command{protocol::PauseScan::COMMAND, STOP, NOTHING, "resume scan", handlers::resumeScan},
    Command{protocol::GetNotices::COMMAND, GET, NOTHING, "get notices", handlers::getNotices},
    Command{protocol::GetNotices::COMMAND, SET, NOTHING, "set notices", handlers::setNotices},
    Command{protocol::GetNotices::COMMAND, START, NOTHING, "test notices", handlers::testNotices},
    Command{IPCMessage::EVENTS, GET, NOTHING, "list events", handlers::listEvents},
    Command{IPCMessage::DAILY_FIGURES, GET, NOTHING, "get daily figures", handlers::getDailyFigures},
};

const Command* findCommand(const IPCMessage& request) {
    const auto found = std::find_if(COMMANDS.begin(), COMMANDS.end(), [&request](const Command& command) {
        return command.commandID == request.commandID && command.operation == request.operation;
    });
    return found == COMMANDS.end() ? nullptr : &*found;
}

bool ready(Service& service, const Command& command, IPCMessage& reply) {
    if (command.needs != CONFIGURATION || service.configuration().refresh()) return true;
    return handlers::refuse("The configuration cannot be used: " + service.configuration().error(), reply);
}

/// A refusal carries nothing that could be taken for a result.
void keepMessageOnly(IPCMessage& reply) {
    std::erase_if(reply.params, [](const auto& parameter) { return parameter.first != protocol::MESSAGE; });
}

}  // namespace

bool answersAtOnce(const IPCMessage& request) {
    const Command* const command = findCommand(request);
    return command && command->runs == AT_ONCE;
}

IPCMessage answer(Service& service, const IPCMessage& request) {
    IPCMessage reply;
    reply.operation = request.operation;
    reply.commandID = request.commandID;
    const Command* command = findCommand(request);
    if (!command) handlers::refuse("Unknown command.", reply);
    const bool done = command && ready(service, *command, reply) && command->handler(service, request, reply);
    reply.result = done ? IPCMessage::RESULT_OK : IPCMessage::RESULT_ERROR;
    if (!done) keepMessageOnly(reply);
    NORV_TRACE("%s: result %d", command ? command->name : "unknown command", reply.result);
    return reply;
}

}  // namespace keldra
