#pragma once

#include <cstdint>
#include <string>

/// The number of a week day, Sunday 0 to Saturday 6, from its English name (case-sensitive) or a single digit 0 to 6;
/// 0 for anything else.
int32_t toWeekDay(const std::string& name);
