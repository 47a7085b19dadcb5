#pragma once

#include "service/scanned_file.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <stop_token>

namespace keldra {

/// Opened files on their way from the walk to the workers; bounded, because each holds a descriptor.
class FileQueue {
public:
    explicit FileQueue(std::size_t limit) : limit_(limit) {}

    /// Waits for room. False, and the file is dropped, when a stop was asked for.
    bool push(ScannedFile file, const std::stop_token& stop) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait(lock, stop, [this] { return files_.size() < limit_; })) return false;
        files_.push_back(std::move(file));
        changed_.notify_all();
        return true;
    }

    /// Waits for a file. Nothing when a stop was asked for, or when the queue is closed and empty.
    std::optional<ScannedFile> pop(const std::stop_token& stop) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait(lock, stop, [this] { return closed_ || !files_.empty(); }) || files_.empty()) {
            return std::nullopt;
        }
        ScannedFile file = std::move(files_.front());
        files_.pop_front();
        changed_.notify_all();
        return file;
    }

    /// No more files will come.
    void close() {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        changed_.notify_all();
    }

private:
    const std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::deque<ScannedFile> files_;
    bool closed_ = false;
};

}  // namespace keldra
