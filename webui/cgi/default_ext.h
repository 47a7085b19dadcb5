#pragma once

#include "norv/norv_config.h"

/// The page with the list of file extensions that are scanned by default, from "HVDefaultExt.txt" in the variable-data
/// directory. The result says nothing.
int GetHVDefaultExt(const NORVConfig& config);
