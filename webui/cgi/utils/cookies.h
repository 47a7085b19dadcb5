#pragma once

#include <map>
#include <string>

/// The cookies of a Cookie header by name. Pieces without "=" are skipped; the last one of a name wins; values are
/// taken as they stand.
std::map<std::string, std::string> parseCookie(const std::string& header);

/// `nBytes` random bytes in hexadecimal. Throws std::runtime_error when the kernel gives none.
std::string genRandomHex(unsigned long nBytes);
