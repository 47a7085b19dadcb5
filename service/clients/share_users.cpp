#include "service/clients/share_users.h"

#include "service/base/paths.h"

#include <algorithm>
#include <utility>

namespace keldra {

namespace {

constexpr std::size_t MOST = 4096;

}  // namespace

void ShareUsers::connected(ShareUser user) {
    disconnected(user.process, user.share, user.user);
    const std::lock_guard lock(mutex_);
    if (users_.size() >= MOST) users_.pop_front();
    users_.push_back(std::move(user));
}

void ShareUsers::disconnected(pid_t process, const std::string& share, const std::string& user) {
    const std::lock_guard lock(mutex_);
    std::erase_if(users_, [&](const ShareUser& one) {
        return one.process == process && one.share == share && (user.empty() || one.user == user);
    });
}

std::optional<ShareUser> ShareUsers::of(pid_t process, const std::string& file) const {
    const std::lock_guard lock(mutex_);
    std::optional<ShareUser> found;
    for (const ShareUser& one : users_) {
        if (one.process != process || !liesBelow(file, {one.path})) continue;
        if (found && one.share == found->share)
            found->user += ", " + one.user;
        else if (!found || one.path.size() >= found->path.size())
            found = one;
    }
    return found;
}

}  // namespace keldra
