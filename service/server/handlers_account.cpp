#include "norv/log.h"
#include "norv/protocol/session.h"
#include "service/access/logon_guard.h"
#include "service/access/password.h"
#include "service/access/second_factor.h"
#include "service/access/session_store.h"
#include "service/server/handlers.h"

#include <string>
#include <vector>

namespace keldra::handlers {

namespace {

/// Whoever asks shows once more who it is. False, with `Message`, when the password does not fit.
bool knowsPassword(PasswordFile& file, LogonGuard& guard, const Caller& caller, const std::string& enciphered,
                   IPCMessage& reply) {
    const PasswordCheck check = file.checkEnciphered(enciphered);
    if (!check.trouble.empty()) return refuse(check.trouble, reply);
    if (!check.fits) return refuse("The present password is wrong.", reply);
    if (!caller.owner) guard.succeeded(caller.address);
    return true;
}

}  // namespace

bool logOnSecondStep(LogonGuard& guard, SessionStore& sessions, SecondFactor& factor, PendingLogons& pending,
                     const IPCMessage& request, IPCMessage& reply) {
    const auto step = protocol::read<protocol::SecondStep>(request);
    const auto logon = pending.find(step.ticket, step.remoteAddress);
    if (!logon) return refuse("The code came too late. Log on again.", reply);
    std::string trouble;
    if (!factor.check(step.code, trouble)) {
        NORV_LOG(NORV_LOG_REFUSED, "Second step from %s refused", step.remoteAddress.c_str());
        if (!trouble.empty()) return refuse(trouble, reply);
        // The same question once more: the ticket still counts.
        write(reply, protocol::Session{.id = {}, .ticket = step.ticket});
        return true;
    }
    pending.end(step.ticket);
    return openSession(guard, sessions, *logon, reply);
}

bool getSecondFactor(SecondFactor& factor, PasswordFile& password, IPCMessage& reply) {
    const SecondFactorStatus status = factor.status();
    if (!status.trouble.empty()) return refuse(status.trouble, reply);
    write(reply, protocol::SecondFactorState{status.on, status.recoveryCodes, password.mustChange()});
    return true;
}

bool beginSecondFactor(SecondFactor& factor, PasswordFile& password, LogonGuard& guard, const Caller& caller,
                       const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::BeginSecondFactor>(request);
    if (!knowsPassword(password, guard, caller, wanted.password, reply)) return false;
    const std::string secret = factor.begin();
    if (secret.empty()) return refuse("There is no randomness for a secret.", reply);
    write(reply, protocol::SecondFactorSecret{secret});
    return true;
}

bool confirmSecondFactor(SecondFactor& factor, const Caller& caller, const IPCMessage& request, IPCMessage& reply) {
    std::vector<std::string> codes;
    const std::string fault = factor.confirm(protocol::read<protocol::ConfirmSecondFactor>(request).code, codes);
    if (!fault.empty()) return refuse(fault, reply);
    NORV_LOG(NORV_LOG_INFO, "The second step of the log-on was switched on from %s", caller.address.c_str());
    protocol::RecoveryCodes told;
    for (const std::string& code : codes) told.codes.push_back({code});
    write(reply, told);
    return true;
}

bool removeSecondFactor(SecondFactor& factor, PasswordFile& password, LogonGuard& guard, const Caller& caller,
                        const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::RemoveSecondFactor>(request);
    if (!knowsPassword(password, guard, caller, wanted.password, reply)) return false;
    if (const std::string fault = factor.remove(); !fault.empty()) return refuse(fault, reply);
    NORV_LOG(NORV_LOG_INFO, "The second step of the log-on was switched off from %s", caller.address.c_str());
    return true;
}

}  // namespace keldra::handlers
