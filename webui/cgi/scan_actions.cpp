#include "webui/cgi/scan_actions.h"

#include "norv/custom_action.h"
#include "norv/log.h"

#include <algorithm>
#include <string_view>

namespace {

char formDigit(char stored) {
    switch (stored) {
        case '0':
            return '1';
        case '1':
            return '3';
        case '2':
            return '4';
        case '3':
            return '5';
        case '4':
            return '2';
        default:
            return stored;
    }
}

char storedDigit(char form) {
    static constexpr std::string_view STORED = "X04123";
    return form >= '1' && form <= '5' ? STORED[static_cast<std::size_t>(form - '0')] : form;
}

}  // namespace

void UIToConfig(std::string& psValue) { std::transform(psValue.begin(), psValue.end(), psValue.begin(), storedDigit); }

void ConfigToUI(std::string& psValue) {
    NORV_TRACE("ENTER psValue=%s", psValue.c_str());
    std::transform(psValue.begin(), psValue.end(), psValue.begin(), formDigit);
    NORV_TRACE("LEAVE psValue=%s", psValue.c_str());
}

std::string defaultAction(const std::string& virusType) {
    std::string action = recommendedAction(virusType).actionString();
    std::transform(action.begin(), action.end(), action.begin(), formDigit);
    return virusType + "-" + action;
}

std::string actionInputs(const std::string& enableKeenAct, const std::string& enableUniAct,
                         const std::string& custAction) {
    return "<input type=\"hidden\" name=\"EnableKeenAct\" value=\"" + enableKeenAct +
           "\">\n"
           "<input type=\"hidden\" name=\"EnableUniAct\" value=\"" +
           enableUniAct +
           "\">\n"
           "<input type=\"hidden\" name=\"CustAction\" value=\"" +
           custAction + "\">\n";
}
