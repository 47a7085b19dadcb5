#include "norv/protocol/clients.h"
#include "service/clients/share_users.h"
#include "service/server/handlers.h"

#include <filesystem>
#include <string>

namespace keldra::handlers {

namespace {

constexpr std::size_t LONGEST_NAME = 255;

}  // namespace

bool noteShareUser(ShareUsers& users, const IPCMessage& request, IPCMessage& reply) {
    const auto told = protocol::read<protocol::NoteShareUser>(request);
    const auto tooLong = [](const std::string& text) { return text.size() > LONGEST_NAME; };
    if (told.process <= 0) return refuse("A process is a number above 0.", reply);
    if (!told.path.starts_with('/')) return refuse("The folder of a share is an absolute path.", reply);
    if (tooLong(told.share) || tooLong(told.user) || tooLong(told.address) || told.path.size() > 4096)
        return refuse("A name is too long.", reply);
    users.connected({.process = told.process,
                     .share = told.share,
                     .path = std::filesystem::path(told.path).lexically_normal(),
                     .user = told.user,
                     .address = told.address});
    return true;
}

bool forgetShareUser(ShareUsers& users, const IPCMessage& request) {
    const auto told = protocol::read<protocol::ForgetShareUser>(request);
    users.disconnected(told.process, told.share, told.user);
    return true;
}

}  // namespace keldra::handlers
