#include "service/engine/clean_cache.h"

namespace keldra {

namespace {

std::size_t placeOf(const CleanCache::Key& key) {
    std::size_t place = 0;
    for (std::size_t i = 0; i < sizeof place; ++i) place = place << 8U | key[i];
    return place;
}

}  // namespace

CleanCache::Key CleanCache::keyOf(std::span<const char> content, const ScanOptions& options) {
    const std::array<uint64_t, 3> how{options.archives ? 1U : 0U, options.layers, options.memberSizeLimit};
    Sha256 hash;
    hash.add({reinterpret_cast<const char*>(how.data()), sizeof how});
    hash.add({content.data(), content.size()});
    return hash.digest();
}

bool CleanCache::knows(const Key& key) const {
    const std::lock_guard lock(mutex_);
    return entries_[placeOf(key) % ENTRIES] == key;
}

void CleanCache::add(const Key& key) {
    const std::lock_guard lock(mutex_);
    entries_[placeOf(key) % ENTRIES] = key;
}

}  // namespace keldra
