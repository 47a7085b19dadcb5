#pragma once

#include <cstdint>
#include <string>

enum class TimeZone { LOCAL, UTC };

/// A time (seconds since the epoch) in the form that `format` tells strftime; empty when it cannot be told.
std::string timeText(std::int64_t seconds, const char* format = "%Y-%m-%d %H:%M:%S", TimeZone zone = TimeZone::LOCAL);
