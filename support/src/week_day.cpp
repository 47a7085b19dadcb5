#include "norv/week_day.h"

#include <algorithm>
#include <array>
#include <string_view>

int32_t toWeekDay(const std::string& name) {
    static constexpr std::array<std::string_view, 7> NAMES = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                              "Thursday", "Friday", "Saturday"};
    if (name.size() == 1 && name[0] >= '0' && name[0] <= '6') return name[0] - '0';
    const auto* const found = std::find(NAMES.begin(), NAMES.end(), name);
    return found == NAMES.end() ? 0 : static_cast<int32_t>(found - NAMES.begin());
}
