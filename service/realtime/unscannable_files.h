#pragma once

#include "service/realtime/file_access.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <tuple>

namespace keldra {

/// Remembers files that cannot be scanned, so that trying again and again does not keep the scan busy. Of bounded size:
/// what is new displaces what is old. A file that changes is another one. May be used from several threads.
class UnscannableFiles {
public:
    void add(const struct stat& file);
    bool knows(const struct stat& file) const;
    void forget();

private:
    using Key = std::tuple<FileIdentity, std::int64_t, std::int64_t, std::int64_t>;

    static constexpr std::size_t MOST = 4096;

    static Key keyOf(const struct stat& file);

    mutable std::mutex mutex_;
    std::set<Key> known_;
    std::deque<Key> byAge_;
};

}  // namespace keldra
