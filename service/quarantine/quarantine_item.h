#pragma once

#include <cstdint>
#include <string>

namespace keldra {

/// Why a file is put away.
struct QuarantineReason {
    std::string signature;
    std::string type;  ///< one of `virusTypes`
    std::string task;  ///< id of the scan, or what else found it
};

/// What is kept about a file in quarantine, or about a backup made before cleaning.
struct QuarantineItem {
    std::string id;    ///< random, 32 hexadecimal digits
    std::string path;  ///< where the file stood
    uint32_t owner = 0;
    uint32_t group = 0;
    uint32_t mode = 0;
    int64_t accessed = 0;  ///< nanoseconds since the epoch
    int64_t modified = 0;  ///< nanoseconds since the epoch
    std::string sha256;    ///< lower-case hexadecimal
    uint64_t size = 0;
    std::string signature;
    std::string type;
    std::string task;
    int64_t when = 0;     ///< seconds since the epoch
    bool backup = false;  ///< a copy made before cleaning; the file itself was left in place
};

}  // namespace keldra
