#include "norv/protocol/quarantine.h"
#include "service/base/account_names.h"
#include "service/quarantine/quarantine.h"
#include "service/realtime/realtime_scan.h"
#include "service/server/handlers.h"

#include <map>
#include <string>

namespace keldra::handlers {

namespace {

constexpr std::size_t MAX_ITEMS = 1000;

/// Names of owners, each looked up once: the files of one list mostly belong to few.
class Names {
public:
    std::string user(uint32_t id) { return nameIn(users_, id, userName); }
    std::string group(uint32_t id) { return nameIn(groups_, id, groupName); }

private:
    using Known = std::map<uint32_t, std::string>;
    static std::string nameIn(Known& known, uint32_t id, std::string (*look)(uint32_t)) {
        const auto found = known.find(id);
        return found != known.end() ? found->second : known.emplace(id, look(id)).first->second;
    }

    Known users_;
    Known groups_;
};

protocol::QuarantinedFile wireForm(const QuarantineItem& item, Names& names) {
    return {.id = item.id,
            .path = item.path,
            .size = item.size,
            .owner = item.owner,
            .group = item.group,
            .ownerName = names.user(item.owner),
            .groupName = names.group(item.group),
            .mode = item.mode,
            .modified = item.modified / 1'000'000'000,
            .sha256 = item.sha256,
            .signature = item.signature,
            .type = item.type,
            .task = item.task,
            .when = item.when,
            .backup = item.backup};
}

bool report(const QuarantineResult& result, IPCMessage& reply) {
    write(reply, protocol::ActionDone{result.message});
    return result.done;
}

template <typename Request>
std::string idIn(const IPCMessage& request) {
    return protocol::read<Request>(request).id;
}

}  // namespace

bool listQuarantine(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply) {
    const auto from = protocol::read<protocol::GetQuarantine>(request).from;
    protocol::QuarantineList list;
    Names names;
    for (const QuarantineItem& item : quarantine.list(from, MAX_ITEMS)) list.items.push_back(wireForm(item, names));
    protocol::cutToReply(list.items);
    list.total = quarantine.size();
    write(reply, list);
    return true;
}

bool showQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply) {
    const auto item = quarantine.find(idIn<protocol::GetQuarantined>(request));
    if (!item) return refuse("There is no such item.", reply);
    Names names;
    write(reply, protocol::QuarantineItemReply{wireForm(*item, names)});
    return true;
}

bool restoreQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply) {
    return report(quarantine.restore(idIn<protocol::RestoreQuarantined>(request)), reply);
}

bool deleteQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply) {
    return report(quarantine.remove(idIn<protocol::DeleteQuarantined>(request)), reply);
}

bool listTrusted(Quarantine& quarantine, IPCMessage& reply) {
    protocol::TrustedList list;
    for (const auto& [sha256, name] : quarantine.trusted()) list.trusted.push_back({sha256, name});
    write(reply, list);
    return true;
}

bool trustQuarantined(Quarantine& quarantine, const IPCMessage& request, IPCMessage& reply) {
    return report(quarantine.trust(idIn<protocol::TrustQuarantined>(request)), reply);
}

bool distrust(Quarantine& quarantine, RealtimeScan& realtime, const IPCMessage& request, IPCMessage& reply) {
    const bool done = report(quarantine.distrust(protocol::read<protocol::Distrust>(request).sha256), reply);
    // What was let through for being trusted may be remembered as clean.
    if (done) realtime.forgetClean();
    return done;
}

}  // namespace keldra::handlers
