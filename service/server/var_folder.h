#pragma once

#include "service/settings/configuration_store.h"

#include <filesystem>
#include <string>

namespace keldra {

/// The folder that is shared with the console: the one that the document names, else a given one.
class VarFolder {
public:
    VarFolder(const ConfigurationStore& configuration, std::filesystem::path otherwise)
        : configuration_(configuration), otherwise_(std::move(otherwise)) {}

    /// Never empty.
    std::string path() const;
    /// Makes it, with the list of default extensions, once for each path. For one thread.
    void prepare();

private:
    const ConfigurationStore& configuration_;
    const std::filesystem::path otherwise_;
    std::string prepared_;
};

}  // namespace keldra
