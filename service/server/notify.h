#pragma once

#include <string>

namespace keldra {

/// Tells the service manager about the service's state, such as "READY=1", when it wants to know (NOTIFY_SOCKET is
/// set; see sd_notify(3) for the words). Does nothing otherwise.
void notifyManager(const std::string& state);

}  // namespace keldra
