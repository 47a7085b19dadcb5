#include "norv/au_config.h"
#include "norv/protocol/updates.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"
#include "service/ctl/output.h"
#include "service/ctl/progress_bar.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <string>
#include <thread>

namespace keldra {

namespace {

constexpr std::chrono::milliseconds POLL_INTERVAL{100};

struct UpdateOptions {};

int followUpdate(const std::string& id) {
    ProgressBar bar;
    for (;;) {
        const auto answer = ask(protocol::GetUpdateProgress());
        if (!answer) return fail(faultOf(answer));
        const protocol::UpdateProgress& update = answer.reply;
        if (update.requestId != id || !update.running) {
            bar.clear();
            if (jsonWanted())
                print(lowerJson(update));
            else
                print(printable(update.message));
            return update.succeeded ? STATUS_DONE : STATUS_ERROR;
        }
        bar.show(static_cast<std::uint64_t>(update.progress), 10, "updating the signatures");
        std::this_thread::sleep_for(POLL_INTERVAL);
    }
}

int runUpdate(const UpdateOptions&) {
    const std::string id = std::to_string(std::time(nullptr)) + "_" + std::to_string(::getpid());
    protocol::StartManualUpdate request{.requestId = id, .settings = {}};
    request.settings.components = UPDATE_VIRUS_PATTERN | UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;
    const auto answer = ask(request);
    return answer ? followUpdate(id) : fail(faultOf(answer));
}

}  // namespace

void describeUpdate(CLI::App& app, Run& run) {
    UpdateOptions* options = nullptr;
    addCommand(app, run, "update", "Update signatures now and wait for it", options, runUpdate);
}

}  // namespace keldra
