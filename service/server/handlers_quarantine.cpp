#include "service/base/json_text.h"
#include "service/quarantine/quarantine.h"
#include "service/server/handlers.h"
#include "service/server/service.h"

namespace keldra::handlers {

namespace {

constexpr std::size_t MAX_ITEMS = 1000;

void writeItem(JsonText& json, const QuarantineItem& item) {
    json.object([&] {
        json.member("id", item.id).member("path", item.path).member("size", item.size);
        json.member("owner", item.owner).member("group", item.group).member("mode", item.mode);
        json.member("modified", item.modified / 1'000'000'000).member("sha256", item.sha256);
        json.member("signature", item.signature).member("type", item.type).member("task", item.task);
        json.member("when", item.when).member("backup", item.backup);
    });
}

bool report(const QuarantineResult& result, IPCMessage& reply) {
    reply.addParam("Message", result.message);
    return result.done;
}

std::string idOf(const IPCMessage& request) { return request.value<std::string>("Id"); }

}  // namespace

bool listQuarantine(Service& service, const IPCMessage& request, IPCMessage& reply) {
    JsonText json;
    json.array([&] {
        for (const QuarantineItem& item : service.quarantine().list(request.value<std::size_t>("From"), MAX_ITEMS)) {
            if (json.full()) break;
            writeItem(json, item);
        }
    });
    reply.addParam("Items", json.text());
    reply.addParam("Total", service.quarantine().size());
    return true;
}

bool showQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const auto item = service.quarantine().find(idOf(request));
    if (!item) {
        reply.addParam("Message", "There is no such item.");
        return false;
    }
    JsonText json;
    writeItem(json, *item);
    reply.addParam("Item", json.text());
    return true;
}

bool restoreQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return report(service.quarantine().restore(idOf(request)), reply);
}

bool deleteQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return report(service.quarantine().remove(idOf(request)), reply);
}

bool listTrusted(Service& service, const IPCMessage&, IPCMessage& reply) {
    JsonText json;
    json.array([&] {
        for (const auto& entry : service.quarantine().trusted())
            json.object([&] { json.member("sha256", entry.first).member("name", entry.second); });
    });
    reply.addParam("Trusted", json.text());
    return true;
}

bool trustQuarantined(Service& service, const IPCMessage& request, IPCMessage& reply) {
    return report(service.quarantine().trust(idOf(request)), reply);
}

bool distrust(Service& service, const IPCMessage& request, IPCMessage& reply) {
    const bool done = report(service.quarantine().distrust(request.value<std::string>("Sha256")), reply);
    // What was let through for being trusted may be remembered as clean.
    if (done) service.realtime().forgetClean();
    return done;
}

}  // namespace keldra::handlers
