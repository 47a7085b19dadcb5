#pragma once

#include <cstdint>
#include <string>

/// A number with the English word that it asks for: "1 file", "2 files".
inline std::string counted(uint64_t number, const char* one, const char* many) {
    return std::to_string(number) + " " + (number == 1 ? one : many);
}
