#pragma once

#include "service/engine/clean_cache.h"
#include "service/engine/scan_result.h"

#include <cstddef>
#include <cstdint>
#include <stop_token>

struct cl_engine;

namespace keldra {

/// Layers of any sort that the library itself follows; archives, mail, documents and what is inside them all count.
inline constexpr std::uint32_t ENGINE_RECURSION = 24;

/// What is scanned, with what, and how.
struct ContentScan {
    int fd;            ///< an open regular file
    std::size_t size;  ///< bytes
    const char* path;  ///< for messages
    const cl_engine* library;
    CleanCache& clean;  ///< what this library found clean
    ScanOptions options;
    std::stop_token stop;
};

/// Makes the library ask, at every layer of a file, whether `ContentScan::options` leave it out.
void askAboutLayers(cl_engine& library);

/// Scans the content, from its beginning, with a library that was made to ask about layers.
ScanResult scanContent(const ContentScan& scan);

}  // namespace keldra
