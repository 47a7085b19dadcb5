#include "norv/scan_config.h"
#include "tests/program/console_test.h"

using testing::HasSubstr;
using Strings = std::vector<std::string>;

namespace {

class Folders : public ConsoleTest {
protected:
    Folders() {
        defaults.manualScan =
            R"({"NORVManualScanConfig":{"zelscan":true,"scanPaths":"/srv/a\\;b;/srv/c","excludePatterns":"*.iso"}})";
        serve();
    }
    CgiResponse run(const CgiRequest& request) { return console.run(consoleProgram("folders.cgi"), request); }
    CgiResponse save(const std::string& fields) { return run(CgiRequest::post("mode=save&" + fields)); }
};

const std::string SAME = "hvLastConfigFileModifiedDate=1700000000";

}  // namespace

TEST_F(Folders, TheFoldersInAFolderAreListedAsTheServiceAllows) {
    service.on(
        M::GET, M::FOLDER_LIST,
        Answer::reply(1, {{"Folders", R"([{"path":"/srv/\"a\"","name":"\"a\"","folders":true}])"}, {"Complete", "0"}}));
    EXPECT_EQ(run(CgiRequest::get("path=/srv")).body,
              R"({"folders":[{"path":"/srv/\"a\"","name":"\"a\"","folders":true}],"complete":false})");
    EXPECT_EQ(sentByHandler(), Strings{"0/107"});
    EXPECT_EQ(lastParam("Path"), "/srv");
    service.on(M::GET, M::FOLDER_LIST, Answer::reply(2, {{"Message", "There is no such folder: /etc"}}));
    const CgiResponse refused = run(CgiRequest::get("path=/etc"));
    EXPECT_THAT(refused.bytes, HasSubstr("Status: 404 Not Found"));
    EXPECT_EQ(refused.body, R"({"error":"There is no such folder: /etc"})");
}

TEST_F(Folders, TheChosenFoldersAreShownEntryByEntry) {
    EXPECT_EQ(
        run(CgiRequest::get("mode=settings")).body,
        R"({"scanPaths":["/srv/a;b","/srv/c"],"excludePaths":[],"excludePatterns":["*.iso"],"stamp":"1700000000"})");
}

TEST_F(Folders, APreviewCountsWithoutSaving) {
    service.on(M::GET, M::EXCLUDE_PREVIEW,
               Answer::reply(1, {{"Kept", "5"}, {"Left", "2"}, {"Examples", R"(["/srv/x"])"}, {"Complete", "1"}}));
    EXPECT_EQ(run(CgiRequest::post("mode=preview&scanPaths=/srv&excludePaths=/srv/t&excludePatterns=*.iso")).body,
              R"({"kept":5,"left":2,"complete":true,"examples":["/srv/x"]})");
    EXPECT_EQ(sentByHandler(), Strings{"0/108"});
    EXPECT_EQ(lastParam("ExcludePaths"), "/srv/t");
}

TEST_F(Folders, OnlyTheFoldersAreChangedByTheirSave) {
    EXPECT_EQ(save(SAME + "&scanPaths=/srv/n&excludePaths=/srv/n/t&excludePatterns=").body,
              R"({"stamp":"1700000000"})");
    sent();
    const auto stored =
        std::find_if(requests.begin(), requests.end(), [](const M& m) { return m.operation == M::SET; });
    ASSERT_NE(stored, requests.end());
    NORVManualScanConfig record;
    std::istringstream text(stored->value<std::string>("ManualScanConfig"));
    ASSERT_TRUE(text >> record);
    EXPECT_EQ(record.scanPaths, "/srv/n");
    EXPECT_EQ(record.excludePaths, "/srv/n/t");
    EXPECT_EQ(record.excludePatterns, "");
    EXPECT_TRUE(record.zelscan);
}

TEST_F(Folders, NobodysChangeIsOverwrittenUnasked) {
    for (const std::string stamp : {"", "hvLastConfigFileModifiedDate=1699999999", "hvLastConfigFileModifiedDate=x"}) {
        EXPECT_EQ(save(stamp + "&scanPaths=/srv").body, R"({"modified":true})") << stamp;
        EXPECT_EQ(sentByHandler(), (Strings{"0/1", "0/2"})) << stamp;
        EXPECT_THAT(save(stamp + "&scanPaths=/srv&bOverWrite=true").body, HasSubstr("stamp")) << stamp;
        sent();
    }
}

TEST_F(Folders, NothingIsSavedByALinkFromElsewhere) {
    for (const char* mode : {"save", "preview"}) {
        const CgiResponse response = run(CgiRequest::get(std::string("mode=") + mode + "&scanPaths=/srv&" + SAME));
        EXPECT_THAT(response.bytes, HasSubstr("Status: 405 Method Not Allowed")) << mode;
        EXPECT_EQ(sentByHandler(), Strings{}) << mode;
    }
}

TEST_F(Folders, ARefusalIsToldWithItsReason) {
    service.on(M::SET, M::MANUAL_SCAN_CONFIG, Answer::reply(2, {{"Message", "There is no such folder: /x"}}));
    const CgiResponse response = save(SAME + "&scanPaths=/x");
    EXPECT_THAT(response.bytes, HasSubstr("Status: 409 Conflict"));
    EXPECT_EQ(response.body, R"({"error":"There is no such folder: /x"})");
}
