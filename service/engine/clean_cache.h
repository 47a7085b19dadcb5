#pragma once

#include "service/base/sha256.h"
#include "service/engine/scan_result.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace keldra {

/// Remembers what one set of signatures found clean, by a hash of the content and of the options of the scan, so that
/// only the very same bytes looked at in the very same way need not be scanned again. Of bounded size: what is new
/// displaces what is old. May be used from any thread.
class CleanCache {
public:
    using Key = Sha256::Digest;

    static Key keyOf(std::span<const char> content, const ScanOptions& options);

    bool knows(const Key& key) const;
    void add(const Key& key);

private:
    static constexpr std::size_t ENTRIES = std::size_t{1} << 17U;

    mutable std::mutex mutex_;
    std::vector<Key> entries_{ENTRIES};
};

}  // namespace keldra
