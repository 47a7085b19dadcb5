#pragma once

#include "norv/norv_config.h"

#include <string>

namespace keldra {

class Service;

/// The document as the console sees it: what is stored, and what changes by itself (versions of the components, whether
/// the real-time scan runs), which is never stored.
std::string servedDocument(Service& service, const NORVConfig& stored);

}  // namespace keldra
