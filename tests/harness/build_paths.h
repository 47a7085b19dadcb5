#pragma once

#include <filesystem>
#include <string_view>

// For the tests' own sources only: the definitions used here belong to the test programs.

/// A program of the console as built, such as "scanoption.cgi".
inline std::filesystem::path consoleProgram(std::string_view name) {
    return std::filesystem::path(BINARY_DIR) / "webui" / name;
}

/// A program of the service as built, such as "keldrad".
inline std::filesystem::path serviceProgram(std::string_view name) {
    return std::filesystem::path(BINARY_DIR) / "service" / name;
}
