#include "norv/au_config.h"
#include "tests/program/console_test.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

namespace {

class ManualUpdate : public ConsoleTest {
protected:
    ManualUpdate() {
        defaults.document = document("<Group Type=\"Varnel\"><P Name=\"ManualComponents\" Value=\"148\"/></Group>");
        serve();
        console.writeTemplate("Update/update_progress.html", "running __PROGRESS_PERCENT__ iProgressPercent=0\n");
        console.writeTemplate("Update/update_progress2.html", "finished\n");
        console.writeTemplate("Update/update_fail.html", "__FAIL_TITLE__: __REASON__\n");
    }
    CgiResponse start(const std::string& fields) { return post("id=manual_update&" + fields); }
    CgiResponse progress(const std::string& line) {
        console.write("var/progress_42.txt", line);
        return get("id=update_progress&RequestID=42");
    }
};

const std::string ERROR_PAGE = "error page __REQUEST_ID__\n";

}  // namespace

TEST_F(ManualUpdate, AnAcceptedUpdateIsStartedUnderTheNameThatThePageChose) {
    const CgiResponse response = start("RequestID=4_2&VirusPattern=ON");
    expectPage(response, ERROR_PAGE);
    EXPECT_EQ(sentByHandler(), Strings{"3/24"});
    EXPECT_EQ(lastParam("RequestID"), "4_2");
    EXPECT_EQ(requests.back().params.size(), 2U);
    EXPECT_TRUE(response.logged(5, "Execute Manual AU OK"));
    EXPECT_THAT(complaints(response), IsEmpty());
    EXPECT_TRUE(std::filesystem::is_empty(console.var()));
}

TEST_F(ManualUpdate, WhatIsUpdatedIsWhatWasTicked) {
    // 148 is what the configuration holds: bits 2, 4 and 7, which the form does not know.
    const std::vector<std::pair<std::string, int>> cases{{"", 148},
                                                         {"VirusPattern=0", 149},
                                                         {"ScanEngine=false", 150},
                                                         {"SpywarePattern=+", 180},
                                                         {"VirusPattern=&ScanEngine=", 148},
                                                         {"VirusPattern=1&ScanEngine=1&SpywarePattern=1", 183}};
    for (const auto& [fields, components] : cases) {
        SCOPED_TRACE(fields);
        start("RequestID=1&" + fields);
        sent();
        EXPECT_EQ(lastRecord<NORVManualAUConfig>("ManualAUConfig").components, components);
    }
}

TEST_F(ManualUpdate, ANameThatIsNoneIsNeverSentAndNeverBecomesAFile) {
    for (const char* name : {"", "12a", "1.2", "..%2F1", "+1", "1+", "1%0A", "1%00", "%D9%A1", "-1", "1/2"}) {
        SCOPED_TRACE(name);
        const CgiResponse response = start(std::string("VirusPattern=1&RequestID=") + name);
        expectPage(response, ERROR_PAGE);
        EXPECT_THAT(sentByHandler(), IsEmpty());
        ASSERT_EQ(complaints(response).size(), 1U);
        EXPECT_EQ(complaints(response)[0].rfind("2 Invalid request id [", 0), 0U);
    }
    EXPECT_TRUE(start("").logged(2, "Invalid request id []"));
    EXPECT_TRUE(std::filesystem::is_empty(console.var()));
}

TEST_F(ManualUpdate, ARefusedUpdateIsReportedAsAnotherOneRunning) {
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        console.write("var/progress_42.txt", "a much longer line than before\n");
        service.on(M::START, M::MANUAL_UPDATE, answer);
        const CgiResponse response = start("RequestID=42&VirusPattern=1");
        expectPage(response, ERROR_PAGE);
        EXPECT_THAT(complaints(response), Contains("1 Execute Manual Scan Failed"));
        EXPECT_EQ(console.read("var/progress_42.txt"), "DUPLICATE");
        expectPage(get("id=update_progress&RequestID=42"),
                   "Update not completed.: There is another update currently in progress.\n");
        std::filesystem::remove(console.var() / "progress_42.txt");
        start("RequestID=42&VirusPattern=1");
        EXPECT_EQ(console.read("var/progress_42.txt"), "DUPLICATE");
    }
}

TEST_F(ManualUpdate, AFileThatCannotBeWrittenDoesNotStopTheAnswer) {
    service.on(M::START, M::MANUAL_UPDATE, Answer::refuse(2));
    std::filesystem::remove_all(console.var());
    expectPage(start("RequestID=42"), ERROR_PAGE);
    expectPage(get("id=update_progress&RequestID=42"), "running 0% iProgressPercent=0\n");
}

TEST_F(ManualUpdate, ALongNameIsCutAlikeWhenWrittenAndWhenRead) {
    service.on(M::START, M::MANUAL_UPDATE, Answer::refuse(2));
    for (const std::size_t length : {241U, 242U, 250U, 300U}) {
        const std::string name(length, '7');
        start("RequestID=" + name);
        const std::string file = ("progress_" + name + ".txt").substr(0, 254);
        EXPECT_EQ(console.read("var/" + file), "DUPLICATE");
        expectPage(get("id=update_progress&RequestID=" + name),
                   "Update not completed.: There is another update currently in progress.\n");
        std::filesystem::remove(console.var() / file);
    }
}

TEST_F(ManualUpdate, ProgressIsShownAsTheServiceWroteIt) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", "running 0% iProgressPercent=0\n"},
        {"0\n", "running 00% iProgressPercent=0\n"},
        {"7", "running 70% iProgressPercent=70\n"},
        {"9\nwhatever\n", "running 90% iProgressPercent=90\n"},
        {"007\n", "running 0070% iProgressPercent=70\n"},
        {"10\n", "finished\n"},
        // 214748365 tenths overflow to below zero, 429496730 come round to 4.
        {"214748365\n", "running 2147483650% iProgressPercent=-2147483646\n"},
        {"429496730\n", "running 4294967300% iProgressPercent=4\n"},
        {std::string(400, '9'), "running " + std::string(400, '9') + "0% iProgressPercent=-10\n"},
        {"DUPLICATE\nmore\n", "Update not completed.: There is another update currently in progress.\n"},
        {"DUPLICATE \n", "Update not completed.: DUPLICATE \n"},
        {"components are current\n", "Update complete: components are current\n"},
        {"Current", "Update not completed.: Current\n"},
        {"no network\ncurrent\n", "Update not completed.: no network\n"},
        {"-7\n", "Update not completed.: -7\n"},
        {"7\r\n", "Update not completed.: 7\r\n"},
        {"7%\n", "Update not completed.: 7%\n"},
    };
    for (const auto& [line, shown] : cases) {
        SCOPED_TRACE(line);
        const CgiResponse response = progress(line);
        expectPage(response, shown);
        EXPECT_TRUE(response.logged(5, "RequestID = 42"));
        EXPECT_THAT(sentByHandler(), IsEmpty());
    }
}

TEST_F(ManualUpdate, AProgressFileIsNeverMistakenForAnother) {
    console.write("var/progress_43.txt", "7");
    console.write("progress_42.txt", "7");
    std::filesystem::create_directories(console.var() / "progress_44.txt");
    for (const char* name : {"42", "", "44", "../progress_42", "x/../../progress_42", "43.txt"}) {
        SCOPED_TRACE(name);
        expectPage(get(std::string("id=update_progress&RequestID=") + name), "running 0% iProgressPercent=0\n");
    }
}
