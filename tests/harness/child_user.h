#pragma once

#include "norv/ipc_message.h"

#include <sys/types.h>

#include <filesystem>
#include <vector>

/// Whether this process may start others that belong to another user.
bool mayBecomeAnotherUser();

/// Lets any user reach the socket as far as its file and its folder go, so that only the service itself refuses.
void openToUsers(const std::filesystem::path& socket);

/// Sends requests one after the other on one connection of a process of that user. The results of the replies; it ends
/// early at the first one that is not answered.
std::vector<int> resultsAsUser(uid_t user, const std::filesystem::path& socket,
                               const std::vector<IPCMessage>& requests);
