#include "service/engine/scan_user.h"

#include "norv/log.h"

#include <linux/capability.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <vector>

namespace keldra {

namespace {

bool mayChangeUser() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> held{};
    if (::syscall(SYS_capget, &header, held.data()) != 0) return false;
    for (const int needed : {CAP_SETUID, CAP_SETGID, CAP_CHOWN, CAP_DAC_OVERRIDE})
        if ((held[0].effective & (1U << static_cast<unsigned>(needed))) == 0) return false;
    return true;
}

std::optional<ScanUser> userNamed(const std::string& name) {
    std::vector<char> space(4096);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwnam_r(name.c_str(), &entry, space.data(), space.size(), &found) != 0 || found == nullptr)
        return std::nullopt;
    return ScanUser{entry.pw_uid, entry.pw_gid};
}

}  // namespace

ScanUser scanUser(const std::string& name) {
    const ScanUser own{::geteuid(), ::getegid()};
    if (!mayChangeUser()) return own;
    const std::vector<std::string> names =
        name.empty() ? std::vector<std::string>{"keldra-scan", "nobody"} : std::vector<std::string>{name};
    for (const std::string& candidate : names)
        if (const auto user = userNamed(candidate)) return *user;
    NORV_LOG(NORV_LOG_WARNING, "There is no user to scan as; files are scanned as this service's own user");
    return own;
}

}  // namespace keldra
