#include "webui/cgi/scan_form.h"

#include "tests/unit/webui/settings_test.h"
#include "webui/cgi/scan_actions.h"

#include <string>
#include <utility>
#include <vector>

namespace {

class ScanForm : public SettingsTest {};

TEST_F(ScanForm, TheChoiceOfFilesIsTakenOver) {
    struct Case {
        std::string form;
        bool zelscan;
        bool defaultList;
        std::string list;
    };
    for (const Case& row : std::vector<Case>{
             {"E1=ON22&C3=ON&SelectedExt=exe", false, false, ""},
             {"E1=ZelscanOn&C3=ON&SelectedExt=exe", true, false, ""},
             {"E1=ON23&C3=ON&SelectedExt=+exe;com+", false, true, " exe;com "},
             {"E1=ON23&SelectedExt=exe", false, false, "exe"},
             {"E1=ON23&C3=0", false, true, ""},
             {"E1=on22", true, false, ""},
             {"", true, false, ""},
         }) {
        NORVManualScanConfig record;
        record.includeExtList = "old";
        record.includeHVExtList = true;
        ConstructScanConfig(formOf(row.form), record);
        EXPECT_EQ(record.zelscan, row.zelscan) << row.form;
        EXPECT_EQ(record.includeHVExtList, row.defaultList) << row.form;
        EXPECT_EQ(record.includeExtList, row.list) << row.form;
    }
}

TEST_F(ScanForm, LimitsThatAreNoNumbersLeaveTheStoredOnes) {
    struct Case {
        std::string form;
        bool compressed;
        uint32_t layer;
        uint32_t limit;
    };
    for (const Case& row : std::vector<Case>{
             {"Scan_config7=ON&Layers=5&T1=20", true, 5, 20},
             {"Scan_config7=0&Layers=+3x&T1=20MB", true, 3, 20},
             {"Scan_config7=ON&Layers=0&T1=", true, 7, 9},
             {"Scan_config7=ON&Layers=x3&T1=99999999999", true, 7, 9},
             {"Scan_config7=ON&Layers=-1", true, 4294967295, 9},
             {"Layers=5&T1=20", false, 7, 9},
         }) {
        NORVManualScanConfig record;
        record.compressionLayer = 7;
        record.compressFileSizeLimit = 9;
        ConstructScanConfig(formOf(row.form), record);
        EXPECT_EQ(record.scanCompressed, row.compressed) << row.form;
        EXPECT_EQ(record.compressionLayer, row.layer) << row.form;
        EXPECT_EQ(record.compressFileSizeLimit, row.limit) << row.form;
    }
}

TEST_F(ScanForm, ExactlyOneKindOfActionsIsKept) {
    struct Case {
        std::string form;
        std::string custom;
        std::string universe;
    };
    for (const Case& row : std::vector<Case>{
             {"EnableKeenAct=1&EnableUniAct=0&CustAction=Universe-5-4,Virus-5-4", "", ""},
             {"EnableKeenAct=0&EnableUniAct=1&CustAction=Universe-2-3", "", "4-1"},
             {"EnableKeenAct=0&EnableUniAct=1&CustAction=Virus-2-3", "", "0-0"},
             {"EnableKeenAct=0&EnableUniAct=0&CustAction=Universe-5-4,Virus-5-4,Trojan-4-1", "Virus-3-2,Trojan-2-0",
              ""},
             {"", "", ""},
             {"EnableKeenAct=1&EnableUniAct=1&CustAction=Virus-5-4", "Old-1-1", "1-1"},
             {"EnableKeenAct=2&EnableUniAct=0", "Old-1-1", "1-1"},
             {"EnableKeenAct=0&EnableUniAct=-1", "Old-1-1", "1-1"},
         }) {
        NORVManualScanConfig record;
        record.customActions = "Old-1-1";
        record.universeAction = "1-1";
        ConstructScanConfig(formOf(row.form), record);
        EXPECT_EQ(record.customActions, row.custom) << row.form;
        EXPECT_EQ(record.universeAction, row.universe) << row.form;
    }
    EXPECT_EQ(logged(1), std::vector<std::string>(3, "Reached unexpected condition"));
}

TEST_F(ScanForm, ABackupIsKeptOnlyForTheExactWord) {
    for (const auto& [value, kept] : {std::pair{"ON", true}, {"on", false}, {"1", false}, {"", false}}) {
        NORVManualScanConfig record;
        ConstructScanConfig(formOf(std::string("Scan_BackupFilesBeforeClean=") + value), record);
        EXPECT_EQ(record.backupBeforeClean, kept) << value;
    }
}

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
