#pragma once

#include <sys/types.h>

#include <string>

namespace keldra {

/// The name of a user or of a group of this system; empty when it has none.
std::string userName(uid_t user);
std::string groupName(gid_t group);

}  // namespace keldra
