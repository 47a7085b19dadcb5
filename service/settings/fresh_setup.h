#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace keldra {

/// What a service needs before its first start.
struct FreshSetup {
    std::filesystem::path config;
    std::filesystem::path state;
    std::filesystem::path key;
    std::filesystem::path var;
    std::vector<std::string> scanPaths;  ///< folders that the scans start with
};

/// Makes what is missing of it: a configuration with safe settings (nothing scheduled, no real-time scan), the key that
/// console and service share, the folders. What is there is never touched. One line per piece is appended to `report`.
/// Returns what failed, empty when nothing did.
std::string makeFreshSetup(const FreshSetup& setup, std::vector<std::string>& report);

}  // namespace keldra
