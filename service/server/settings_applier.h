#pragma once

#include "norv/norv_config.h"
#include "service/server/work_lane.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace keldra {

class ConfigurationStore;

/// Puts changed settings in force, on a thread of its own: one change after the other and each with the newest
/// document, so that the last one applied is the last one stored.
class SettingsApplier {
public:
    using PutInForce = std::function<void(const NORVConfig& config)>;

    SettingsApplier(ConfigurationStore& configuration, PutInForce putInForce)
        : configuration_(configuration), putInForce_(std::move(putInForce)) {}

    /// Does not wait for anything. `byHand`: the document has no backup yet.
    void applySoon(bool byHand);
    /// Waits until it is done, so long at most; then it goes on by itself.
    void apply(std::chrono::milliseconds patience);
    /// Begins nothing any more. True when nothing is being applied.
    bool stop(std::chrono::milliseconds patience) { return lane_.stop(patience); }

private:
    std::uint64_t post(bool byHand);
    void applyNewest(bool byHand);

    ConfigurationStore& configuration_;
    const PutInForce putInForce_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t wanted_ = 0;   ///< changes that were told of
    std::uint64_t applied_ = 0;  ///< those of them that are in force
    WorkLane lane_{{.threads = 1, .waiting = 64}};
};

}  // namespace keldra
