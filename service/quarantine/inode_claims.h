#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

namespace keldra {

/// Lets one task at a time work on a file, whatever names it has. May be used from any thread.
class InodeClaims {
public:
    /// Holds the file until it goes.
    class Claim {
    public:
        Claim(InodeClaims& claims, const struct stat& file) : claims_(claims), key_(file.st_dev, file.st_ino) {
            std::unique_lock lock(claims_.mutex_);
            claims_.released_.wait(lock, [this] { return claims_.taken_.insert(key_).second; });
        }
        ~Claim() {
            const std::lock_guard lock(claims_.mutex_);
            claims_.taken_.erase(key_);
            claims_.released_.notify_all();
        }
        Claim(const Claim&) = delete;
        Claim& operator=(const Claim&) = delete;

    private:
        InodeClaims& claims_;
        std::pair<dev_t, ino_t> key_;
    };

private:
    std::mutex mutex_;
    std::condition_variable released_;
    std::set<std::pair<dev_t, ino_t>> taken_;
};

}  // namespace keldra
