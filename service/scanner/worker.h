#pragma once

#include <cstdint>

struct cl_engine;

namespace keldra {

/// Scans what is sent over wire::CHANNEL, one file after the other, with the library, until the other side ends; then
/// ends the process. What is unpacked goes to wire::TEMPORARY. `mapped`: bytes of address space that were taken
/// before the first file.
[[noreturn]] void serveScans(cl_engine& library, std::uint64_t mapped);

}  // namespace keldra
