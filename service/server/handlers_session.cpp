#include "norv/crypto.h"
#include "norv/log.h"
#include "norv/norv_config.h"
#include "norv/protocol/session.h"
#include "service/access/password.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

namespace keldra::handlers {

namespace {

/// Whether this is the console's user. A document that names none takes any name, as the password alone decides then.
bool knownUser(Service& service, const std::string& user) {
    const auto config = service.configuration().snapshot();
    const std::string expected = configValueOr(*config, "Configuration", "ConsoleUser", std::string());
    return expected.empty() || constantTimeEqual(user, expected);
}

bool credentialsFit(Service& service, const protocol::LogOn& request) {
    std::string password;
    const bool readable = dm_decryptString(request.password, password);
    // The password is looked at whoever asks, so the time taken does not tell which names exist.
    const bool fits = readable && checkPassword(service.passwordFile(), password);
    return fits && knownUser(service, request.user);
}

SessionProof proofOf(const IPCMessage& request) {
    const auto proof = protocol::read<protocol::SessionProof>(request);
    return {proof.id, proof.remoteAddress, proof.requestMethod, proof.formToken, proof.cookieToken};
}

}  // namespace

bool logOn(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const auto wanted = protocol::read<protocol::LogOn>(request);
    const std::string& address = wanted.remoteAddress;
    if (!service.logonGuard().admits(address)) {
        NORV_LOG(NORV_LOG_REFUSED, "Log-on from %s refused: too many failures", address.c_str());
        return refuse("Too many failures, wait a while.", reply);
    }
    if (!credentialsFit(service, wanted)) {
        service.logonGuard().failed(address);
        NORV_LOG(NORV_LOG_REFUSED, "Log-on from %s refused", address.c_str());
        return false;
    }
    service.logonGuard().succeeded(address);
    const std::string id = service.sessions().create(address);
    if (id.empty()) return false;
    NORV_LOG(NORV_LOG_INFO, "Log-on from %s", address.c_str());
    write(reply, protocol::Session{id});
    return true;
}

bool logOff(Service& service, const IPCMessage& request, IPCMessage&) {
    return service.sessions().remove(proofOf(request));
}

bool checkSession(Service& service, const IPCMessage& request, IPCMessage&) {
    const std::int64_t changed = passwordSetAt(service.passwordFile());
    // One of the future, after the clock was set back, would end every session at once.
    if (changed <= service.clock().now()) service.sessions().endThoseBefore(changed);
    return service.sessions().check(proofOf(request));
}

}  // namespace keldra::handlers
