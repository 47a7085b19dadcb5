#include "webui/cgi/scan_actions.h"

#include "norv/log.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

struct DefaultAction {
    std::string_view virusType;
    std::string_view action;
};

constexpr std::array DEFAULT_ACTIONS = {
    DefaultAction{"Joke", "-4-1"},       DefaultAction{"Trojan", "-4-1"},  DefaultAction{"Virus", "-5-4"},
    DefaultAction{"Test_Virus", "-1-1"}, DefaultAction{"Spyware", "-4-1"}, DefaultAction{"Other", "-5-4"},
};
constexpr std::string_view OTHER_TYPES_ACTION = "-5-4";

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
    const auto* const found =
        std::find_if(DEFAULT_ACTIONS.begin(), DEFAULT_ACTIONS.end(),
                     [&](const DefaultAction& candidate) { return candidate.virusType == virusType; });
    return virusType + std::string(found == DEFAULT_ACTIONS.end() ? OTHER_TYPES_ACTION : found->action);
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
