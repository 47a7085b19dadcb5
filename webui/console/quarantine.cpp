#include "webui/cgi/page_wrapper.h"
#include "webui/cgi/service_message.h"
#include "webui/console/json_response.h"
#include "webui/console/service_text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t MOST_IDS = 500;

/// What a page may do with files in quarantine, and how the service is asked for it.
struct Action {
    const char* name;
    IPCMessage::Operation operation;
    IPCMessage::CommandID command;
    const char* parameter;
};

constexpr std::array ACTIONS{
    Action{"restore", IPCMessage::START, IPCMessage::QUARANTINE_ITEM, "Id"},
    Action{"delete", IPCMessage::STOP, IPCMessage::QUARANTINE_ITEM, "Id"},
    Action{"trust", IPCMessage::START, IPCMessage::QUARANTINE_TRUST, "Id"},
    Action{"distrust", IPCMessage::STOP, IPCMessage::QUARANTINE_TRUST, "Sha256"},
};

struct Outcome {
    std::string id;
    bool done = false;
    std::string message;
};

std::vector<std::string> splitIds(std::string_view list) {
    std::vector<std::string> ids;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(','), list.size());
        if (end > 0) ids.emplace_back(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return ids;
}

Outcome carryOut(const Action& action, const std::string& id) {
    IPCMessage message(action.operation, action.command);
    message.addParam(action.parameter, id);
    IPCMessage reply;
    if (!exchange(message, reply)) return {id, false, NOT_RESPONDING};
    const bool done = reply.result == IPCMessage::RESULT_OK;
    const auto text = reply.value<std::string>("Message");
    return {id, done, done || !text.empty() ? text : "The service refused the request."};
}

void writeOutcome(JsonWriter& json, const Outcome& outcome) {
    json.StartObject();
    writeMember(json, "id", outcome.id);
    json.Key("done");
    json.Bool(outcome.done);
    writeMember(json, "message", translateServiceText(outcome.message));
    json.EndObject();
}

/// Does one thing to each of the files named; each has its own outcome.
int act(const ConsoleRequest& request) {
    if (!requirePost(request)) return 1;
    const std::string name = request.text("action");
    const auto* const action =
        std::find_if(ACTIONS.begin(), ACTIONS.end(), [&](const Action& a) { return name == a.name; });
    const std::vector<std::string> ids = splitIds(request.text("ids"));
    if (action == ACTIONS.end() || ids.empty() || ids.size() > MOST_IDS) {
        return answerError("400 Bad Request", "The request names nothing that can be done.");
    }
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        json.Key("results");
        json.StartArray();
        for (const std::string& id : ids) writeOutcome(json, carryOut(*action, id));
        json.EndArray();
        json.EndObject();
    }));
}

/// A list as the service wrote it.
void writeList(JsonWriter& json, const char* name, const IPCMessage& reply, const char* parameter) {
    const auto list = reply.hasParam(parameter) ? reply.value<std::string>(parameter) : "[]";
    json.Key(name);
    json.RawValue(list.data(), list.size(), rapidjson::kArrayType);
}

/// The files from number `From` on, newest first, as many as the service gives at a time; and what is trusted.
int list(const ConsoleRequest& request) {
    IPCMessage message(IPCMessage::GET, IPCMessage::QUARANTINE);
    message.addParam("From", std::max(0, request.fields.getEnv<int>("From")));
    IPCMessage items;
    IPCMessage trusted;
    if (!askService(message, items)) return 1;
    if (!askService({IPCMessage::GET, IPCMessage::QUARANTINE_TRUST}, trusted)) return 1;
    return answerJson(jsonText([&](JsonWriter& json) {
        json.StartObject();
        writeList(json, "items", items, "Items");
        json.Key("total");
        json.Int64(items.value<std::int64_t>("Total"));
        writeList(json, "trusted", trusted, "Trusted");
        json.EndObject();
    }));
}

int showPage() {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    return page.outputPage("quarantine.html") ? 0 : 1;
}

int handle(const ConsoleRequest& request) {
    if (request.isPost() || request.has("action")) return act(request);
    return request.has("list") ? list(request) : showPage();
}

}  // namespace

/// The files in quarantine: the page, their list as JSON, and what is done with them.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
