#pragma once

#include <sys/types.h>

#include <string>

namespace keldra {

/// A user and group, as numbers.
struct ScanUser {
    uid_t user = 0;
    gid_t group = 0;
};

/// Whom scanners run as: the user of that name, or the service's own for scanning or nobody when it is empty, as far as
/// this process has the rights to change the user and to keep folders for another one; else this process's own.
ScanUser scanUser(const std::string& name);

}  // namespace keldra
