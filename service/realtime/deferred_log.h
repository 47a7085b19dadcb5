#pragma once

#include "service/realtime/loose_threads.h"

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// Writes lines to the log for threads that must not wait, not even for the log.
class DeferredLog : public std::enable_shared_from_this<DeferredLog> {
public:
    /// False when there can be no thread for it.
    bool start(LooseThreads threads);
    /// Takes a line of warning; what comes faster than it can be written is counted only.
    void note(std::string line);
    void end();

private:
    void write();

    std::mutex mutex_;
    std::condition_variable ready_;
    std::vector<std::string> lines_;
    std::size_t lost_ = 0;
    bool ended_ = false;
};

}  // namespace keldra
