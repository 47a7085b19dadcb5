#include "norv/crypto.h"
#include "norv/log.h"
#include "norv/norv_config.h"
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

bool credentialsFit(Service& service, const IPCMessage& request) {
    std::string password;
    const bool readable = dm_decryptString(request.value<std::string>("Password"), password);
    // The password is looked at whoever asks, so the time taken does not tell which names exist.
    const bool fits = readable && checkPassword(service.passwordFile(), password);
    return fits && knownUser(service, request.value<std::string>("User"));
}

SessionProof proofOf(const IPCMessage& request) {
    return {request.value<std::string>("SessionID"), request.value<std::string>("RemoteAddr"),
            request.value<std::string>("RequestMethod"), request.value<std::string>("CsrfTokenHeader"),
            request.value<std::string>("CsrfTokenCookie")};
}

}  // namespace

bool logOn(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const auto address = request.value<std::string>("RemoteAddr");
    if (!service.logonGuard().admits(address)) {
        NORV_LOG(NORV_LOG_REFUSED, "Log-on from %s refused: too many failures", address.c_str());
        reply.addParam("Message", "Too many failures, wait a while.");
        return false;
    }
    if (!credentialsFit(service, request)) {
        service.logonGuard().failed(address);
        NORV_LOG(NORV_LOG_REFUSED, "Log-on from %s refused", address.c_str());
        return false;
    }
    service.logonGuard().succeeded(address);
    const std::string id = service.sessions().create(address);
    if (id.empty()) return false;
    NORV_LOG(NORV_LOG_INFO, "Log-on from %s", address.c_str());
    reply.addParam("SessionID", id);
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
