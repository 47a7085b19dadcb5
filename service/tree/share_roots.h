#pragma once

#include "norv/norv_config.h"
#include "service/base/files.h"

#include <string>
#include <vector>

namespace keldra {

/// The folders that may be scanned from the console, with all below them: Configuration/ShareRoots, a path list. A
/// document without that value has the folders that its scans name. Absolute, in their shortest form.
std::vector<std::string> shareRoots(const NORVConfig& config);

/// A folder that lies in one of the roots, or why it is not to be had.
struct SharedFolder {
    FileDescriptor folder;  ///< open for reading
    std::string path;       ///< its shortest form
    std::string fault;      ///< English, empty when it was opened
};

/// Opens a root or a folder below one. What leads out of the root is refused, be it by ".." or over a symbolic link.
SharedFolder openSharedFolder(const std::vector<std::string>& roots, const std::string& path);

/// What is wrong with the folders of the path list `after` that are not in `before`, empty when nothing is: each must
/// be there and lie in one of the roots.
std::string checkNewFolders(const NORVConfig& config, const std::string& before, const std::string& after);

}  // namespace keldra
