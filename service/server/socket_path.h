#pragma once

#include <filesystem>
#include <string>

namespace keldra {

/// Removes the socket file that a service which was killed left behind. Returns what is in the way, as one English
/// sentence, empty when nothing is: a service that listens there, another kind of file.
std::string clearSocketPath(const std::filesystem::path& socket);

}  // namespace keldra
