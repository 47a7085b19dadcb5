#pragma once

#include "norv/norv_config.h"
#include "service/updates/components.h"

#include <memory>
#include <mutex>
#include <string>

namespace keldra {

/// What the console is shown beside the stored settings; it changes by itself and is never stored.
struct ServedState {
    std::string varPath;
    ComponentVersions versions;
    bool realtimeRunning = false;
    bool kernelAllows = false;

    bool operator==(const ServedState&) const = default;
};

/// The document as the console sees it. Every page asks for it, so the last one is kept. May be used from several
/// threads.
class ServedDocument {
public:
    /// The XML text of the stored document with the state laid over it.
    std::string text(const std::shared_ptr<const NORVConfig>& stored, const ServedState& state);

private:
    std::mutex mutex_;
    std::shared_ptr<const NORVConfig> stored_;  ///< held, so that no other document can take its address
    ServedState state_;
    std::string text_;
};

}  // namespace keldra
