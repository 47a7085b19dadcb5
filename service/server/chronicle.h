#pragma once

#include "service/events/repeated_events.h"
#include "service/server/caller.h"
#include "service/server/command_table.h"
#include "service/settings/configuration_store.h"

#include <functional>
#include <optional>

namespace keldra {

/// Whom the journal names: the user of the session with the browser's address, or the local user and "local".
EventActor actorOf(const Caller& caller);

/// A command that the journal is to tell of.
struct Telling {
    Event event{};
    const char* failed = nullptr;            ///< what to call it when it fails; null: not told then
    bool isSecondStep = false;               ///< of a log-on: the code behind the password
    bool fromStrangers = false;              ///< failures come as often as somebody without a session likes
    std::function<void(Event&)> complete{};  ///< adds what is known only afterwards
};

/// Writes into the journal who did what, for all commands that change or start something. May be used from any thread.
class Chronicle {
public:
    explicit Chronicle(EventJournal& journal, const Clock& clock = systemClock());

    /// What is to be told of a command: to be called before it is done, while what it is about is still there. Nothing
    /// for one that only asks, and for one whose saves `settingsChanged` tells of.
    static std::optional<Telling> begin(const Parts& parts, const Command& command, const Caller& caller,
                                        const IPCMessage& request);
    /// To be called with what the command answered.
    void end(std::optional<Telling> telling, const IPCMessage& reply);
    void settingsChanged(const ConfigurationChange& change);

    /// Tells of what was bundled. To be called every minute. `all`: also of what could still become more.
    void settle(bool all = false) { strangers_.settle(all); }

private:
    EventJournal& journal_;
    RepeatedEvents strangers_;
};

}  // namespace keldra
