#pragma once

#include "norv/ipc_message.h"

// Commands that few ends speak; `docs/protocol.md` describes them.

/// Settings that belong to no scan.
inline constexpr auto SETTINGS_COMMAND = static_cast<IPCMessage::CommandID>(130);
/// Folders that are likely to be worth guarding.
inline constexpr auto SHARE_PROPOSALS_COMMAND = static_cast<IPCMessage::CommandID>(131);
