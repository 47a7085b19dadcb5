#include "service/server/chronicle.h"

#include "norv/protocol/notices.h"
#include "norv/protocol/quarantine.h"
#include "norv/protocol/scans.h"
#include "norv/protocol/session.h"
#include "service/access/password.h"
#include "service/access/second_factor.h"
#include "service/access/session_store.h"
#include "service/base/account_names.h"
#include "service/notices/notices.h"
#include "service/quarantine/quarantine.h"
#include "service/scanning/scan_jobs.h"
#include "service/settings/settings_difference.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <sstream>
#include <utility>

namespace keldra {

namespace {

constexpr const char* LOCAL = "local";
constexpr const char* WRONG_CODE = "The code is wrong.";
constexpr const char* TICKET = "Ticket";
constexpr const char* WRONG = "The user name or the password is wrong.";

struct Told {
    const Parts& parts;
    const IPCMessage& request;
    Telling& telling;
};

template <typename Request>
Request asked(const Told& told) {
    return protocol::read<Request>(told.request);
}

void describeLogOn(const Told& told) {
    const auto wanted = asked<protocol::LogOn>(told);
    told.telling.event.who = {wanted.user, wanted.remoteAddress};
}

/// The name stands with the password that came before.
void describeSecondStep(const Told& told) {
    const auto step = asked<protocol::SecondStep>(told);
    const auto logon = std::get<PendingLogons&>(told.parts).find(step.ticket, step.remoteAddress);
    told.telling.event.who = {logon ? logon->user : "", step.remoteAddress};
}

void describeLogOff(const Told& told) {
    const auto proof = asked<protocol::SessionProof>(told);
    told.telling.event.who = {std::get<SessionStore&>(told.parts).userOf(proof.id), proof.remoteAddress};
}

void describeEndedSession(const Told& told) {
    const std::string id = asked<protocol::EndSession>(told).id;
    for (const SessionInfo& session :
         std::get<SessionStore&>(told.parts).list(std::get<PasswordFile&>(told.parts).mark()))
        if (session.id == id) told.telling.event.detail = session.user + " (" + session.address + ")";
}

void describeLiftedBlock(const Told& told) { told.telling.event.detail = asked<protocol::LiftBlock>(told).address; }

template <typename Request>
void describeItem(const Told& told) {
    const auto item = std::get<Quarantine&>(told.parts).find(asked<Request>(told).id);
    if (!item) return;
    told.telling.event.path = item->path;
    told.telling.event.signature = item->signature;
}

void describeDistrust(const Told& told) {
    const std::string sha256 = asked<protocol::Distrust>(told).sha256;
    const auto trusted = std::get<Quarantine&>(told.parts).trusted();
    const auto known = trusted.find(sha256);
    told.telling.event.path = known == trusted.end() ? "" : known->second;
    told.telling.event.detail = sha256;
}

void describeManualScan(const Told& told) { told.telling.event.task = scanKindName(ScanKind::MANUAL); }

void describePathScan(const Told& told) {
    told.telling.event.task = scanKindName(ScanKind::PATH);
    told.telling.event.path = asked<protocol::StartPathScan>(told).paths;
}

void describeRunningScan(const Told& told) {
    const auto status = std::get<ScanJobs&>(told.parts).status(asked<protocol::StopManualScan>(told).requestId);
    if (status) told.telling.event.task = scanKindName(status->kind);
}

void describeUpdate(const Told& told) { told.telling.event.task = "manual"; }

/// The fields of the notices' settings as they are served, without secrets.
std::map<std::string, std::string> fieldsOf(const NoticeSettings& settings) {
    std::map<std::string, std::string> fields;
    NoticeSettings::visit(settings, [&fields](const char* name, const auto& field) {
        std::ostringstream text;
        if constexpr (requires { text << field; }) text << field;
        fields[name] = text.str();
    });
    return fields;
}

void describeNotices(const Told& told) {
    auto& notices = std::get<Notices&>(told.parts);
    told.telling.complete = [&notices, before = fieldsOf(notices.served())](Event& event) {
        event.detail = "notices";
        for (const auto& [name, value] : fieldsOf(notices.served())) {
            const auto old = before.find(name);
            if (old != before.end() && old->second == value) continue;
            const std::string from = old == before.end() ? "" : old->second;
            // Who has such an address may send.
            event.detail += "; " + (name == "HookUrl" || name == "Authorities" ? name + ": changed"
                                                                               : changeText(name, from, value));
        }
    };
}

/// What is said of a command; of those that are not listed nothing is.
struct Row {
    int32_t command;
    int32_t operation;
    EventKind kind;
    const char* done;
    const char* failed;
    void (*describe)(const Told&);
    bool fromStrangers = false;
};

using M = IPCMessage;
using enum IPCMessage::Operation;
using enum EventKind;

constexpr std::array ROWS{
    Row{M::PASSWORD_LOGON, SESSION, LOGON, "logged on", "log-on refused", describeLogOn, true},
    Row{M::SECOND_STEP, SESSION, LOGON, "logged on", "log-on refused", describeSecondStep, true},
    Row{M::SECOND_FACTOR, SET, LOGON, "second step switched on", nullptr, nullptr},
    Row{M::SECOND_FACTOR, STOP, LOGON, "second step switched off", "second step not switched off", nullptr, true},
    Row{M::SESSION_LOGOFF, SESSION, LOGON, "logged off", nullptr, describeLogOff},
    Row{M::SESSIONS, STOP, LOGON, "session ended", nullptr, describeEndedSession},
    Row{M::LOGON_BLOCK, STOP, LOGON, "block lifted", nullptr, describeLiftedBlock},
    Row{M::CONSOLE_PASSWORD, SET, LOGON, "password changed", "password not changed", nullptr, true},
    Row{M::CONSOLE_PASSWORD, START, LOGON, "password changed", nullptr, nullptr},
    Row{M::MANUAL_SCAN, START, SCAN, "started", "not started", describeManualScan},
    Row{M::MANUAL_SCAN, STOP, SCAN, "told to stop", nullptr, describeRunningScan},
    Row{M::PATH_SCAN, START, SCAN, "started", "not started", describePathScan},
    Row{M::PATH_SCAN, STOP, SCAN, "told to stop", nullptr, describeRunningScan},
    Row{protocol::PauseScan::COMMAND, START, SCAN, "told to pause", nullptr, describeRunningScan},
    Row{protocol::ResumeScan::COMMAND, STOP, SCAN, "told to go on", nullptr, describeRunningScan},
    Row{M::MANUAL_UPDATE, START, UPDATE, "started", "not started", describeUpdate},
    Row{M::QUARANTINE_ITEM, START, QUARANTINE, "restored", "not restored", describeItem<protocol::RestoreQuarantined>},
    Row{M::QUARANTINE_ITEM, STOP, QUARANTINE, "deleted for good", "not deleted",
        describeItem<protocol::DeleteQuarantined>},
    Row{M::QUARANTINE_TRUST, START, QUARANTINE, "trusted", "not trusted", describeItem<protocol::TrustQuarantined>},
    Row{M::QUARANTINE_TRUST, STOP, QUARANTINE, "trusted no longer", nullptr, describeDistrust},
    Row{protocol::GetNotices::COMMAND, SET, SETTINGS, "saved", nullptr, describeNotices},
};

}  // namespace

EventActor actorOf(const Caller& caller) {
    // Only these two come without a session; others would be asked for at some distant directory.
    static const std::string root = userName(0);
    static const std::string self = userName(::geteuid());
    if (!caller.session.empty()) return {caller.name, caller.address};
    return {caller.user == 0 ? root : caller.user == ::geteuid() ? self : std::to_string(caller.user), LOCAL};
}

Chronicle::Chronicle(EventJournal& journal, const Clock& clock) : journal_(journal), strangers_(journal, clock) {
    actorOf({});
}

std::optional<Telling> Chronicle::begin(const Parts& parts, const Command& command, const Caller& caller,
                                        const IPCMessage& request) {
    const auto* const row = std::find_if(ROWS.begin(), ROWS.end(), [&command](const Row& known) {
        return known.command == command.commandID && known.operation == command.operation;
    });
    if (row == ROWS.end()) return std::nullopt;
    Telling telling;
    telling.event.kind = row->kind;
    telling.event.action = row->done;
    telling.event.who = actorOf(caller);
    telling.failed = row->failed;
    telling.fromStrangers = row->fromStrangers;
    telling.isSecondStep = row->command == M::SECOND_STEP;
    if (row->describe) row->describe({parts, request, telling});
    return telling;
}

void Chronicle::end(std::optional<Telling> telling, const IPCMessage& reply) {
    if (!telling) return;
    Event& event = telling->event;
    // Nobody has logged on with a password alone where a code is asked for; it is asked for again when it was wrong.
    const bool asksForCode = reply.hasParam(TICKET);
    if (asksForCode && !telling->isSecondStep) event.action = "code asked for";
    if (reply.result == IPCMessage::RESULT_OK && !(asksForCode && telling->isSecondStep)) {
        if (telling->complete) telling->complete(event);
        journal_.add(std::move(event));
        return;
    }
    if (!telling->failed) return;
    event.action = telling->failed;
    event.severity = EventSeverity::WARNING;
    event.detail = asksForCode ? WRONG_CODE : reply.value<std::string>(protocol::MESSAGE);
    if (!telling->fromStrangers) {
        journal_.add(std::move(event));
        return;
    }
    if (event.detail.empty()) event.detail = WRONG;
    // What was typed as a name may well be the password.
    event.who.user.clear();
    strangers_.add(std::move(event));
}

void Chronicle::settingsChanged(const ConfigurationChange& change) {
    const std::string difference = settingsDifference(*change.before, *change.after);
    if (difference.empty()) return;
    journal_.add({.kind = EventKind::SETTINGS,
                  .action = change.byHand ? "changed in the file" : "saved",
                  .detail = difference,
                  .who = change.who});
}

}  // namespace keldra
