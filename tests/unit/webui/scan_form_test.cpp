#include "webui/cgi/scan_form.h"

#include "tests/unit/webui/settings_test.h"
#include "webui/cgi/scan_actions.h"

#include <string>
#include <utility>
#include <vector>

namespace {

class ScanForm : public SettingsTest {};

TEST_F(ScanForm, TheChoiceOfFilesIsShownAgain) {
    for (const auto& [choice, index] : {std::pair{"ON22", "0"}, {"ON23", "1"}, {"ZelscanOn", "2"}, {"", "2"}}) {
        SetIncludeExt(page, formOf(std::string("SelectedExt=a%22b&E1=") + choice));
        EXPECT_EQ(shown("ScanOptionIncludeExtList=0"), std::string("ScanOptionIncludeExtList=") + index) << choice;
    }
    EXPECT_EQ(shown("ScanOptionIncludeExtListString=\"\""), "ScanOptionIncludeExtListString=\"a\\\"b\"");
}

TEST_F(ScanForm, ActionsAreShownAgainAsTheyCame) {
    SetAction(page, formOf("EnableKeenAct=0&EnableUniAct=x&CustAction=Virus-5-4"));
    EXPECT_EQ(shown(ACTION_MARKER),
              "<input type=\"hidden\" name=\"EnableKeenAct\" value=\"0\">\n"
              "<input type=\"hidden\" name=\"EnableUniAct\" value=\"x\">\n"
              "<input type=\"hidden\" name=\"CustAction\" value=\"Virus-5-4\">\n");
}

TEST_F(ScanForm, AChoiceInASelectIsShownAgainCountedFromZero) {
    for (const auto& [value, expected] : {std::pair{"3", "iLayer=2"},
                                          {"1", "iLayer=0"},
                                          {"0", "iLayer=\"\""},
                                          {"x", "iLayer=\"\""},
                                          {"", "iLayer=\"\""},
                                          {"-4", "iLayer=-5"},
                                          {"-2147483648", "iLayer=2147483647"}}) {
        EXPECT_EQ(SetSingleSelect(page, formOf(std::string("Layers=") + value), "Layers", "iLayer"), 1);
        EXPECT_EQ(shown("iLayer=0"), expected) << value;
    }
}

TEST_F(ScanForm, AnOverlongSelectNameIsCut) {
    const std::string name(2000, 'n');
    SetSingleSelect(page, formOf("Layers=3"), "Layers", name.c_str());
    EXPECT_EQ(logged(5).back(), std::string(1023, 'n') + " ==> " + std::string(1023, 'n'));
}

}  // namespace
