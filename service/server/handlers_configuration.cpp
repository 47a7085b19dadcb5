#include "norv/protocol/configuration.h"
#include "service/realtime/realtime_scan.h"
#include "service/server/handlers.h"
#include "service/server/var_folder.h"
#include "service/settings/configuration_store.h"
#include "service/settings/served_document.h"
#include "service/updates/updater.h"

namespace keldra::handlers {

bool checkConfiguration() {
    // That it can be used has been looked at before the handler was called.
    return true;
}

bool getConfiguration(ConfigurationStore& configuration, VarFolder& varFolder, ServedDocument& document,
                      Updater& updater, RealtimeScan& realtime, IPCMessage& reply) {
    const auto config = configuration.snapshot();
    const RealtimeState state = realtime.state();
    const ServedState served{varFolder.path(), updater.versions(), state.serviceRuns(), state.kernelAllows};
    write(reply, protocol::Configuration{document.text(config, served), config->lastModified()});
    return true;
}

}  // namespace keldra::handlers
