#include "webui/cgi/scan_common.h"

#include "tests/unit/webui/settings_test.h"

#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;

namespace {

class ScanCommon : public SettingsTest {};

TEST_F(ScanCommon, EachOutcomeOfASaveHasItsPage) {
    console.writeTemplate("response/Response_success.html", "success __PAGE_TITLE__ __RESPONSE_BACK_PAGE__");
    console.writeTemplate("response/Response_fail.html", "failure __PAGE_TITLE__ __FAIL_REASON__");
    console.writeTemplate("response/Disk_full.html", "full __PAGE_HEADER__ __PAGE_TITLE_1__");
    console.writeTemplate("Settings.html", "settings");
    const std::string head = "Content-type: text/html\n\n";
    const std::vector<std::pair<int, std::string>> cases = {
        {1, head + "success Configuration changes have been successfully saved. /back"},
        {0, head + "failure No. Why"},
        {-1, head + "settings"},
        {-2, ""},
        {-3, head + "full Head Configuration changes have been successfully saved."},
        {5, head + "settings"},
        {-5, head + "settings"},
    };
    for (const auto& [outcome, expected] : cases) {
        CPageWrapper answer(CPageWrapper::CONTENT_TYPE_HTML);
        const auto complete = [&, mode = outcome] {
            SaveCommandComplete(answer, mode, "Head", "No.", "Why", "/back", "Settings.html");
        };
        EXPECT_EQ(written(complete), expected) << outcome;
    }
}

TEST_F(ScanCommon, AnOutcomeIsLoggedAlsoWithoutItsTexts) {
    SaveCommandComplete(page, SAVE_ANSWERED, "Head", nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(logged(5).back(), "ENTER iSettingMode=-2 sHeader=Head sFailTitle= sFailReason= sBackURL= sNormalPage=");
}

TEST_F(ScanCommon, SomebodyElsesChangeIsOverwrittenOnlyAfterAsking) {
    struct Case {
        long current;
        std::string form;
        bool whenEqual;     ///< asks where only an equal stamp may be saved unasked
        bool whenNotOlder;  ///< asks where a newer one may, too
    };
    for (const Case& row : std::vector<Case>{
             {100, "hvLastConfigFileModifiedDate=100", false, false},
             {101, "hvLastConfigFileModifiedDate=100", true, true},
             {100, "hvLastConfigFileModifiedDate=101", true, false},
             {101, "hvLastConfigFileModifiedDate=100&bOverWrite=true", false, false},
             {101, "hvLastConfigFileModifiedDate=100&bOverWrite=TRUE", true, true},
             {100, "", true, true},
             {100, "hvLastConfigFileModifiedDate=later", true, true},
             {0, "", false, false},
             {4294967297, "hvLastConfigFileModifiedDate=4294967297", false, false},
             {4294967298, "hvLastConfigFileModifiedDate=4294967297", true, true},
             {100, "hvLastConfigFileModifiedDate=99999999999999999999", true, true},
         }) {
        const NORVConfig config = configurationOf("<Document/>", row.current);
        const CQSControl form = formOf(row.form);
        EXPECT_EQ(mustAskToOverwrite(config, form, SaveUnasked::WHEN_EQUAL), row.whenEqual) << row.form;
        EXPECT_EQ(mustAskToOverwrite(config, form, SaveUnasked::WHEN_NOT_OLDER), row.whenNotOlder) << row.form;
    }
}

TEST_F(ScanCommon, VirusTypesComeInTheServicesOrder) {
    serveVirusTypes("Virus;;Test_Virus;");
    std::vector<std::string> types = {"first"};
    GetVirusType(types);
    EXPECT_THAT(types, ElementsAre("first", "Virus", "", "Test_Virus"));
}

}  // namespace
