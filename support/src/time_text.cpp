#include "norv/time_text.h"

#include <array>
#include <ctime>

std::string timeText(std::int64_t seconds, const char* format, TimeZone zone) {
    const auto when = static_cast<std::time_t>(seconds);
    std::tm parts{};
    std::array<char, 64> text{};
    if (!(zone == TimeZone::UTC ? ::gmtime_r(&when, &parts) : ::localtime_r(&when, &parts))) return {};
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}
