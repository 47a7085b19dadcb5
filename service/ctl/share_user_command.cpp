#include "norv/protocol/clients.h"
#include "service/ctl/command_line.h"
#include "service/ctl/control_client.h"

#include <string>

namespace keldra {

namespace {

struct ShareUserOptions {
    protocol::NoteShareUser told;
    bool gone = false;
};

int runShareUser(const ShareUserOptions& options) {
    const protocol::NoteShareUser& told = options.told;
    const auto answer = options.gone ? ask(protocol::ForgetShareUser{told.process, told.share, told.user}) : ask(told);
    return answer.done ? done() : fail(faultOf(answer));
}

}  // namespace

void describeShareUser(CLI::App& app, Run& run) {
    ShareUserOptions* options = nullptr;
    CLI::App* const command =
        addCommand(app, run, "share-user",
                   "For a file server that has files scanned: tell who connected to a share, so that events name him",
                   options, runShareUser);
    command->add_option("--process", options->told.process, "Process of the file server that serves him")->required();
    command->add_option("--share", options->told.share, "Name of the share")->required();
    CLI::Option* const path = command->add_option("--path", options->told.path, "Folder of the share");
    command->add_option("--user", options->told.user, "Who it is");
    command->add_option("--address", options->told.address, "Address of his computer");
    command->add_flag("--gone", options->gone, "He has disconnected")->excludes(path);
}

}  // namespace keldra
