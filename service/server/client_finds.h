#pragma once

#include "service/base/clock.h"
#include "service/clients/client_session.h"
#include "service/clients/share_users.h"
#include "service/events/event_journal.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace keldra {

/// Puts what other programs' scans found, or could not look at, into the journal: the same of one file or content and
/// client once an hour, and of each client no more than some; of the rest the number. May be used from any thread.
class ClientFinds {
public:
    ClientFinds(EventJournal& journal, const ShareUsers& users, const Clock& clock = systemClock())
        : journal_(journal), users_(users), clock_(clock) {}

    void add(const ClientReport& report);
    /// Tells what is left to be told of the hours that are over. To be called now and then.
    void tellRest();

private:
    /// What was told of one client since `begun`.
    struct Hour {
        std::int64_t begun = 0;  ///< milliseconds of the steady clock
        std::uint64_t found = 0;
        std::uint64_t notScanned = 0;
        std::set<std::string> told;
        EventActor who;
    };

    void tellRestOf(const Hour& hour);

    EventJournal& journal_;
    const ShareUsers& users_;
    const Clock& clock_;
    std::mutex mutex_;
    std::map<std::string, Hour> hours_;  ///< by client
};

}  // namespace keldra
