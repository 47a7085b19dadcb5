#include "service/base/account_names.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace keldra {

namespace {

constexpr std::size_t LARGEST_ENTRY = std::size_t{1} << 20U;

/// Looks an entry up with as much room as it needs. `look`: one of the reentrant look-ups of the C library.
template <typename Entry, typename Id>
std::string nameOf(Id id, int (*look)(Id, Entry*, char*, std::size_t, Entry**), char* Entry::*name) {
    std::vector<char> room(1024);
    Entry entry{};
    Entry* found = nullptr;
    while (look(id, &entry, room.data(), room.size(), &found) == ERANGE && room.size() < LARGEST_ENTRY)
        room.resize(room.size() * 2);
    return found ? found->*name : "";
}

}  // namespace

std::string userName(uid_t user) { return nameOf<passwd, uid_t>(user, ::getpwuid_r, &passwd::pw_name); }
std::string groupName(gid_t group) { return nameOf<::group, gid_t>(group, ::getgrgid_r, &::group::gr_name); }

}  // namespace keldra
