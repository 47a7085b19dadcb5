#include "norv/crypto.h"
#include "norv/log.h"
#include "norv/norv_config.h"
#include "norv/protocol/session.h"
#include "service/access/logon_guard.h"
#include "service/access/password.h"
#include "service/access/second_factor.h"
#include "service/access/session_store.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"

namespace keldra::handlers {

namespace {

/// Whether this is the console's user. A document that names none takes any name, as the password alone decides then.
bool knownUser(const NORVConfig& config, const std::string& user) {
    const std::string expected = configValueOr(config, "Configuration", "ConsoleUser", std::string());
    return expected.empty() || constantTimeEqual(user, expected);
}

bool admitted(const std::string& why, const std::string& address, IPCMessage& reply) {
    if (why.empty()) return true;
    NORV_LOG(NORV_LOG_REFUSED, "Attempt from %s not looked at: %s", address.c_str(), why.c_str());
    return refuse(why, reply);
}

SessionProof proofOf(const IPCMessage& request) {
    const auto proof = protocol::read<protocol::SessionProof>(request);
    return {proof.id, proof.remoteAddress, proof.requestMethod, proof.formToken, proof.cookieToken};
}

/// Something has ended, be it that this could not be stored yet.
bool ended(const SessionStore& sessions, IPCMessage& reply) {
    if (const std::string problem = sessions.problem(); !problem.empty()) write(reply, protocol::SessionEnded{problem});
    return true;
}

}  // namespace

bool admitLogOn(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply) {
    const std::string address = protocol::read<protocol::LogOn>(request).remoteAddress;
    return admitted(guard.admit(address), address, reply);
}

bool admitCode(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply) {
    const std::string address = protocol::read<protocol::SecondStep>(request).remoteAddress;
    return admitted(guard.admitCode(address), address, reply);
}

bool logOn(ConfigurationStore& configuration, PasswordFile& password, LogonGuard& guard, SessionStore& sessions,
           SecondFactor& factor, PendingLogons& pending, const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::LogOn>(request);
    const std::string& address = wanted.remoteAddress;
    // The password is looked at whoever asks, so the time taken does not tell which names exist.
    const PasswordCheck check = password.checkEnciphered(wanted.password);
    if (!check.fits || !knownUser(*configuration.snapshot(), wanted.user)) {
        NORV_LOG(NORV_LOG_REFUSED, "Log-on from %s refused", address.c_str());
        return check.trouble.empty() ? false : refuse(check.trouble, reply);
    }
    const SecondFactorStatus second = factor.status();
    if (!second.trouble.empty()) return refuse(second.trouble, reply);
    if (!second.on) return openSession(guard, sessions, {address, check.mark, wanted.user}, reply);
    write(reply, protocol::Session{.id = {}, .ticket = pending.begin({address, check.mark, wanted.user})});
    return true;
}

bool openSession(LogonGuard& guard, SessionStore& sessions, const HalfLogon& logon, IPCMessage& reply) {
    guard.succeeded(logon.address);
    const SessionStart start = sessions.create(logon.address, logon.mark, logon.user);
    if (start.id.empty()) return refuse(start.reason, reply);
    NORV_LOG(NORV_LOG_INFO, "Log-on from %s", logon.address.c_str());
    write(reply, protocol::Session{.id = start.id});
    return true;
}

bool logOff(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply) {
    if (!sessions.remove(proofOf(request), password.mark())) return false;
    return ended(sessions, reply);
}

bool checkSession(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply) {
    if (password.mustChange()) write(reply, protocol::SessionChecked{true});
    return sessions.check(proofOf(request), password.mark());
}

bool watchSession(PasswordFile& password, SessionStore& sessions, const IPCMessage& request, IPCMessage& reply) {
    if (password.mustChange()) write(reply, protocol::SessionChecked{true});
    return sessions.check(proofOf(request), password.mark(), SessionUse::BY_PAGE);
}

bool listSessions(PasswordFile& password, SessionStore& sessions, LogonGuard& guard, const Caller& caller,
                  IPCMessage& reply) {
    const std::string own = SessionStore::listedId(caller.session);
    protocol::SessionList list;
    for (const SessionInfo& session : sessions.list(password.mark()))
        list.sessions.push_back(
            {session.id, session.user, session.address, session.begun, session.lastUse, session.id == own});
    for (const LogonBlock& block : guard.blocks())
        list.blocked.push_back({block.address, block.failures, block.seconds});
    write(reply, list);
    return true;
}

bool endSession(SessionStore& sessions, const IPCMessage& request, IPCMessage& reply) {
    if (!sessions.end(protocol::read<protocol::EndSession>(request).id))
        return refuse("There is no such session.", reply);
    return ended(sessions, reply);
}

bool liftBlock(LogonGuard& guard, const IPCMessage& request, IPCMessage& reply) {
    return guard.lift(protocol::read<protocol::LiftBlock>(request).address) ||
           refuse("Nothing is held against that address.", reply);
}

bool admitPasswordChange(LogonGuard& guard, const Caller& caller, IPCMessage& reply) {
    return caller.owner || admitted(guard.admit(caller.address), caller.address, reply);
}

bool changePassword(PasswordFile& password, LogonGuard& guard, SessionStore& sessions, const Caller& caller,
                    const IPCMessage& request, IPCMessage& reply) {
    const auto change = protocol::read<protocol::ChangePassword>(request);
    const PasswordCheck check = password.checkEnciphered(change.password);
    if (!check.trouble.empty()) return refuse(check.trouble, reply);
    if (!check.fits) return refuse("The present password is wrong.", reply);
    if (!caller.owner) guard.succeeded(caller.address);
    std::string wanted;
    if (!dm_decryptString(change.newPassword, wanted)) return refuse("The new password cannot be read.", reply);
    if (password.check(wanted).fits) return refuse("The new password is the present one.", reply);
    if (const std::string fault = password.store(wanted); !fault.empty())
        return refuse("The password was not changed: " + fault + ".", reply);
    NORV_LOG(NORV_LOG_INFO, "The console's password was changed from %s", caller.address.c_str());
    // All sessions have ended with the old one; whoever changed it goes on with a new one.
    if (!caller.session.empty())
        write(reply, protocol::Session{sessions.create(caller.address, password.mark(), caller.name).id});
    return true;
}

bool notePassword(PasswordFile& password, const IPCMessage& request, IPCMessage& reply) {
    return password.liesIn(protocol::read<protocol::NotePassword>(request).folder) ||
           refuse("That is the password of another service.", reply);
}

}  // namespace keldra::handlers
