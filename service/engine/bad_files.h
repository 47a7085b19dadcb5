#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace keldra {

/// Remembers which files a scanner did not survive, or took too long for, as long as they do not change. Of bounded
/// size. May be used from any thread.
class BadFiles {
public:
    /// Why that file failed; nothing when it is not known.
    std::optional<std::string> reasonOf(const struct stat& status) const;
    void add(const struct stat& status, const std::string& reason);
    void forget();

private:
    using Key = std::array<int64_t, 5>;

    static constexpr std::size_t MOST = 4096;
    static Key keyOf(const struct stat& status);

    mutable std::mutex mutex_;
    std::map<Key, std::string> reasons_;
    std::deque<Key> order_;  ///< the oldest first
};

}  // namespace keldra
