#include "service/server/var_folder.h"

#include "norv/log.h"
#include "service/base/files.h"
#include "service/engine/extension_list.h"

#include <cerrno>

namespace keldra {

namespace {

/// Whoever is in its group may replace what lies in it; new files belong to that group.
constexpr mode_t SHARED_MODE = 02770;

}  // namespace

std::string VarFolder::path() const {
    std::string named = configValueOr(*configuration_.snapshot(), "Configuration", "VarPath", std::string());
    return named.empty() ? otherwise_.string() : named;
}

void VarFolder::prepare() {
    const std::string folder = path();
    if (folder == prepared_) return;
    prepared_ = folder;
    if (!makeFolder(folder, SHARED_MODE)) {
        NORV_LOG(NORV_LOG_ERROR, "The folder %s cannot be made: %s", folder.c_str(), errorText(errno).c_str());
        return;
    }
    writeDefaultExtensions(folder);
}

}  // namespace keldra
