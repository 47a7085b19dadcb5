#include "norv/counted.h"
#include "norv/protocol/session.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace keldra {

namespace {

/// Enough of an id to type; any beginning that no other one has will do.
constexpr std::size_t SHOWN_ID = 12;

struct SessionsOptions {
    std::string id;
    std::string address;
    bool all = false;
};

int runList(const SessionsOptions&) {
    const auto answer = ask(protocol::GetSessions());
    if (!answer) return fail(faultOf(answer));
    if (jsonWanted()) return print(lowerJson(answer.reply)), STATUS_DONE;
    for (const protocol::OpenSession& session : answer.reply.sessions)
        print(session.id.substr(0, SHOWN_ID) + "  " + printable(session.user) + "  " + printable(session.address) +
              "  since " + timeText(session.begun) + ", last used " + timeText(session.lastUse));
    for (const protocol::BlockedAddress& blocked : answer.reply.blocked)
        print("blocked: " + printable(blocked.address) + "  " +
              counted(static_cast<uint64_t>(blocked.failures), "failed attempt", "failed attempts") + ", for " +
              durationText(blocked.seconds));
    if (answer.reply.sessions.empty() && answer.reply.blocked.empty()) print("Nobody is logged on.");
    return STATUS_DONE;
}

/// The ids that a beginning stands for; all for an empty one.
std::vector<std::string> idsOf(const std::vector<protocol::OpenSession>& sessions, const std::string& beginning) {
    std::vector<std::string> ids;
    for (const protocol::OpenSession& session : sessions)
        if (session.id.starts_with(beginning)) ids.push_back(session.id);
    return ids;
}

int runEnd(const SessionsOptions& options) {
    if (options.all != options.id.empty()) return fail({FAULT_ARGUMENTS, "name one session, or --all"});
    const auto answer = ask(protocol::GetSessions());
    if (!answer) return fail(faultOf(answer));
    const std::vector<std::string> ids = idsOf(answer.reply.sessions, options.id);
    if (!options.all && ids.empty()) return fail({FAULT_NOT_FOUND, "There is no such session."});
    if (!options.all && ids.size() > 1) return fail({FAULT_ARGUMENTS, "Several sessions begin like that."});
    std::size_t ended = 0;
    Fault fault;
    std::string notStored;
    for (const std::string& id : ids) {
        const auto done = ask(protocol::EndSession{id});
        if (done) ++ended;
        // One that has ended by itself meanwhile is what was wanted, too.
        if (!done && !options.all) fault = faultOf(done);
        if (!done && !done.reached) fault = faultOf(done);
        if (done && !done.reply.message.empty()) notStored = done.reply.message;
    }
    if (!fault.empty()) return fail(fault);
    done("Sessions ended: " + std::to_string(ended));
    return notStored.empty() ? STATUS_DONE : fail({FAULT_FAILED, printable(notStored)});
}

int runUnblock(const SessionsOptions& options) {
    const auto answer = ask(protocol::LiftBlock{options.address});
    return answer ? done() : fail(faultOf(answer));
}

}  // namespace

void describeSessions(CLI::App& app, Run& run) {
    CLI::App* const sessions = app.add_subcommand("sessions", "Look after who is logged on to the console");
    sessions->require_subcommand(1);
    SessionsOptions* options = nullptr;
    addCommand(*sessions, run, "list", "List the sessions, and the addresses that must wait", options, runList);
    CLI::App* const end = addCommand(*sessions, run, "end", "End one session, or all of them", options, runEnd);
    end->add_option("id", options->id, "The session, or the beginning of its id");
    end->add_flag("--all", options->all, "End all sessions");
    addCommand(*sessions, run, "unblock", "Let an address try to log on again at once", options, runUnblock)
        ->add_option("address", options->address, "The address, or any in its network")
        ->required();
}

}  // namespace keldra
