#include "norv/protocol/quarantine.h"
#include "webui/cgi/page_wrapper.h"
#include "webui/console/console_page.h"
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

struct Outcome {
    std::string id;
    bool done = false;
    std::string message;
};

template <typename Request>
Outcome carryOut(const std::string& id) {
    const auto answer = askService(Request{id});
    if (!answer.reached) return {id, false, NOT_RESPONDING};
    if (answer.done) return {id, true, answer.reply.message};
    return {id, false, answer.message.empty() ? "The service refused the request." : answer.message};
}

/// What a page may do with files in quarantine.
struct Action {
    const char* name;
    Outcome (*carryOut)(const std::string& id);
};

constexpr std::array ACTIONS{
    Action{"restore", carryOut<protocol::RestoreQuarantined>},
    Action{"delete", carryOut<protocol::DeleteQuarantined>},
    Action{"trust", carryOut<protocol::TrustQuarantined>},
    Action{"distrust", carryOut<protocol::Distrust>},
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

void writeOutcome(JsonText& json, const Outcome& outcome) {
    json.object([&] {
        json.member("id", outcome.id).member("done", outcome.done);
        json.member("message", translateServiceText(outcome.message));
    });
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
    JsonText json;
    json.object([&] {
        json.name("results").array([&] {
            for (const std::string& id : ids) writeOutcome(json, action->carryOut(id));
        });
    });
    return answerJson(json.text());
}

/// The files from number `From` on, newest first, as many as the service gives at a time; and what is trusted.
int list(const ConsoleRequest& request) {
    const auto from = static_cast<uint64_t>(std::max(0, request.fields.getEnv<int>("From")));
    const auto items = askOrAnswer(protocol::GetQuarantine{from});
    if (!items) return 1;
    const auto trusted = askOrAnswer(protocol::GetTrusted());
    if (!trusted) return 1;
    JsonText json;
    json.object([&] {
        json.member("items", items.reply.items).member("total", items.reply.total);
        json.member("trusted", trusted.reply.trusted);
    });
    return answerJson(json.text());
}

int showPage() { return showConsolePage("quarantine.html"); }

int handle(const ConsoleRequest& request) {
    if (request.isPost() || request.has("action")) return act(request);
    return request.has("list") ? list(request) : showPage();
}

}  // namespace

/// The files in quarantine: the page, their list as JSON, and what is done with them.
int main(int argc, char** argv) try { return runConsoleProgram(argc, argv, handle); } catch (...) {
    throw;  // still fatal, but what `main` owns is destroyed first
}
