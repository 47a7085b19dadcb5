#pragma once

#include "service/engine/scan_result.h"

#include <cstddef>
#include <cstdint>

struct cl_engine;

namespace keldra {

/// Layers of any sort that the library itself follows; archives, mail, documents and what is inside them all count.
inline constexpr std::uint32_t ENGINE_RECURSION = 24;

/// What is scanned, with what, and how.
struct ContentScan {
    int fd;            ///< an open regular file
    std::size_t size;  ///< bytes
    const cl_engine* library;
    std::size_t memberLimit;  ///< bytes at which the library cuts off what it unpacks
    ScanOptions options;
};

/// Readies the library for this process. False when it cannot be used.
bool initLibrary();

/// Makes the library ask, at every layer of a file, whether `ContentScan::options` leave it out.
void askAboutLayers(cl_engine& library);

/// Scans the content, from its beginning, with a library that was made to ask about layers. What the library reported
/// as an error on the way makes a file FAILED that would be clean. Only one thread may do so.
ScanResult scanContent(const ContentScan& scan);

/// The last error that the library reported; empty without any.
const std::string& libraryError();

}  // namespace keldra
