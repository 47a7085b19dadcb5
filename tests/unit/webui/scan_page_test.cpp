#include "webui/cgi/scan_page.h"

#include "tests/unit/webui/settings_test.h"
#include "webui/cgi/scan_actions.h"

#include <string>
#include <utility>
#include <vector>

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// The hidden inputs with these values.
std::string inputs(const std::string& keen, const std::string& universe, const std::string& actions) {
    const auto input = [](const std::string& name, const std::string& value) {
        return "<input type=\"hidden\" name=\"" + name + "\" value=\"" + value + "\">\n";
    };
    return input("EnableKeenAct", keen) + input("EnableUniAct", universe) + input("CustAction", actions);
}

class ScanPage : public SettingsTest {
protected:
    const std::string defaults = "Virus-5-4,Trojan-4-1,Joke-4-1";
};

TEST_F(ScanPage, WhatIsSwitchedOffLeavesTheTemplateAlone) {
    SetScanConfigVars(page, NORVManualScanConfig());
    for (const char* name :
         {"bScanOptionIncludeHVExtList", "bScanOptionBackupFilesBeforeClean", "bScanOptionScanCompressed"}) {
        EXPECT_EQ(shown(std::string(name) + "=false"), "") << name;
    }
    EXPECT_EQ(shown("iScanOptionCompressionLayer=0"), "iScanOptionCompressionLayer=-1");
    EXPECT_EQ(shown("sScanOptionCompressFileSize=\"\""), "sScanOptionCompressFileSize=\"0\"");
}

TEST_F(ScanPage, TheChoiceOfFilesIsDerivedFromTheRecord) {
    struct Case {
        bool zelscan;
        bool defaultList;
        std::string list;
        std::string mode;
    };
    for (const Case& row : std::vector<Case>{
             {true, false, "exe", "2"}, {false, false, "exe", "1"}, {false, true, "", "0"}, {false, false, "", "0"}}) {
        NORVManualScanConfig record;
        record.zelscan = row.zelscan;
        record.includeHVExtList = row.defaultList;
        record.includeExtList = row.list;
        SetScanConfigVars(page, record);
        EXPECT_EQ(shown("ScanOptionIncludeExtList=0"), "ScanOptionIncludeExtList=" + row.mode);
    }
}

TEST_F(ScanPage, ActionsAreShownForTheTypesThatTheServiceKnows) {
    struct Case {
        std::string types;
        std::string custom;
        std::string universe;
        std::string expected;
    };
    for (const Case& row : std::vector<Case>{
             {"Virus;Trojan;Joke", "Virus-3-2,Joke-0-0", "",
              inputs("0", "0", "Universe-5-4,Virus-5-4,Trojan-4-1,Joke-1-1")},
             {"Virus;Trojan;Joke", "Joke-4-1,Gone-0-0,,Virus-3-2", "1-1",
              inputs("0", "0", "Universe-5-4,Virus-5-4,Trojan-4-1,Joke-2-3")},
             {"Virus;Joke", "Joker-1-1,Joke-2-2", "", inputs("0", "0", "Universe-5-4,Virus-5-4,Joker-3-3")},
             {"Virus;Trojan;Joke", "", "1-0", inputs("0", "1", "Universe-3-1," + defaults)},
             {"Spyware;Test_Virus;Other;New", "", "",
              inputs("1", "0", "Universe-5-4,Spyware-4-1,Test_Virus-1-1,Other-5-4,New-5-4")},
             {"", "Virus-3-2", "", inputs("0", "0", "Universe-5-4,")},
             {"", "", "1-0", inputs("0", "1", "Universe-3-1,")},
         }) {
        serveVirusTypes(row.types);
        NORVManualScanConfig record;
        record.customActions = row.custom;
        record.universeAction = row.universe;
        GetKeenAction(page, record);
        EXPECT_EQ(shown(ACTION_MARKER), row.expected) << row.types << " " << row.custom;
    }
}

TEST_F(ScanPage, QuotesInActionsAreEscaped) {
    EXPECT_EQ(SetKeenActionString(page, "\"", "\\", "c\"", "d"), 1);
    EXPECT_EQ(shown(ACTION_MARKER), inputs("\\\"", "\\\\", "d,c\\\""));
}

class ScanPageFromConfiguration : public ScanPage {
protected:
    const NORVConfig config = configurationOf(
        "<Document><Group Type=\"Configuration\"><P Name=\"Custom\" Value=\"Virus-0-0\"/><P Name=\"All\" "
        "Value=\"1-0\"/>"
        "</Group><Group Type=\"ManualScan\"><P Name=\"Layer\" Value=\"3\"/><P Name=\"None\" Value=\"0\"/>"
        "<P Name=\"Least\" Value=\"-2147483648\"/><P Name=\"Text\" Value=\"x\"/></Group></Document>");
};

TEST_F(ScanPageFromConfiguration, ActionsAreShown) {
    GetKeenAction(page, config, "Custom", "All");
    EXPECT_EQ(shown(ACTION_MARKER), inputs("0", "0", "Universe-5-4,Virus-1-1,Trojan-4-1,Joke-4-1"));
    EXPECT_THAT(logged(5), Contains("Custom = Virus-0-0"));
    EXPECT_THAT(logged(5), Contains("All = 1-0"));
}

TEST_F(ScanPageFromConfiguration, ActionsThatAreMissingCountAsEmpty) {
    GetKeenAction(page, config, "Missing", "All");
    EXPECT_EQ(shown(ACTION_MARKER), inputs("0", "1", "Universe-3-1," + defaults));
    EXPECT_THAT(logged(2), ElementsAre("Cannnot find matching category and name [Configuration,Missing]"));
    EXPECT_THAT(logged(1), IsEmpty());
}

TEST_F(ScanPageFromConfiguration, ANumberIsShownInASelectCountedFromZero) {
    for (const auto& [name, expected] :
         {std::pair{"Layer", "iLayer=2"}, {"None", "iLayer=\"\""}, {"Least", "iLayer=2147483647"}}) {
        EXPECT_EQ(GetSingleSelect(page, config, "ManualScan", name, "iLayer"), 1);
        EXPECT_EQ(shown("iLayer=0"), expected) << name;
    }
    CPageWrapper other(CPageWrapper::CONTENT_TYPE_HTML);
    EXPECT_EQ(GetSingleSelect(other, NORVConfig(), "ManualScan", "Layer", "iLayer"), 0);
    EXPECT_THAT(logged(1), IsEmpty());
    EXPECT_THAT(logged(2), IsEmpty());
    EXPECT_EQ(GetSingleSelect(other, config, "ManualScan", "Missing", "iLayer"), 0);
    EXPECT_THAT(logged(1), IsEmpty());
    EXPECT_THAT(logged(2), ElementsAre("Cannnot find matching category and name [ManualScan,Missing]"));
    EXPECT_EQ(GetSingleSelect(other, config, "ManualScan", "Text", "iLayer"), 0);
    EXPECT_THAT(logged(1), ElementsAre("Failed to get config"));
    EXPECT_EQ(shown(other, "iLayer=0"), "");
}

}  // namespace
