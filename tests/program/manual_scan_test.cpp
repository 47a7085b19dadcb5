#include "norv/scan_config.h"
#include "tests/program/console_test.h"
#include "tests/program/scan_settings.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

namespace {

class ManualScan : public ConsoleTest {
protected:
    ManualScan() {
        console.writeTemplate("ScanOptions/Manual.html",
                              "start __START_SCAN__\nstamp __CONFIG_FILE_LAST_MODIFIED__\n"
                              "bIsConfigFileModified=false\niDoScanNow=0\nbSaveFailed=false\n" +
                                  SCAN_VARIABLES);
    }
    /// The settings page, its switches in the order of the template.
    static std::string page(const std::string& start, const std::string& modified, const std::string& doScan,
                            const std::string& saveFailed, const ShownScanSettings& settings = {},
                            const std::string& stamp = "1700000000") {
        return "start " + start + "\nstamp " + stamp + "\nbIsConfigFileModified=" + modified +
               "\niDoScanNow=" + doScan + "\nbSaveFailed=" + saveFailed + "\n" + settings.text();
    }
    CgiResponse save(const std::string& fields, const std::string& mode = "Save") {
        return post("id=manual_scan&mode=" + mode + "&E1=ON23&SelectedExt=exe&" + fields);
    }
};

const std::string NEWER = "hvLastConfigFileModifiedDate=1699999999";
const std::string SAME = "hvLastConfigFileModifiedDate=1700000000";
const ShownScanSettings SUBMITTED{.files = "1", .extensions = "exe"};

}  // namespace

TEST_F(ManualScan, TheSettingsAreShown) {
    defaults.manualScan = R"({"NORVManualScanConfig":{"zelscan":true,"scanPaths":"/srv"}})";
    defaults.stamp = "5000000000";
    serve();
    const CgiResponse response = get("id=manual_scan");
    expectPage(response, page("false", "false", "0", "false", {.files = "2"}, "5000000000"));
    EXPECT_TRUE(response.logged(5, "ENTER save=false   start_scan=false"));
    EXPECT_THAT(complaints(response), IsEmpty());
}

TEST_F(ManualScan, TheQuestionShowsWhatWasSubmittedAndWhatWasToComeNext) {
    expectPage(save(NEWER), page("false", "true", "0", "false", SUBMITTED));
    expectPage(save(NEWER, "SaveAndScan"), page("true", "true", "1", "false", SUBMITTED));
}

TEST_F(ManualScan, SaveAndScanGoesOnToTheScanOrSaysThatTheSaveFailed) {
    const Answer before = Answer::reply(1, {{"ManualScanConfig", defaults.manualScan}});
    const Answer after = Answer::reply(1, {{"ManualScanConfig", R"({"NORVManualScanConfig":{"zelscan":true}})"}});
    service.on(M::GET, M::MANUAL_SCAN_CONFIG, {before, after});
    expectPage(save(SAME, "SaveAndScan"), page("true", "false", "0", "false", {.files = "2"}));
    EXPECT_EQ(sentByHandler(), (Strings{"0/4", "1/4", "0/4", "0/22"}));

    service.on(M::SET, M::MANUAL_SCAN_CONFIG, Answer::refuse(2));
    service.on(M::GET, M::MANUAL_SCAN_CONFIG, {before, after});
    const CgiResponse failed = save(SAME, "SaveAndScan");
    expectPage(failed, page("true", "false", "0", "true", {.files = "2"}));
    EXPECT_TRUE(failed.logged(5, "Refreshing page"));

    service.on(M::GET, M::MANUAL_SCAN_CONFIG, {before, Answer::refuse(2)});
    expectNothing(save(SAME, "SaveAndScan"), 0);
}

TEST_F(ManualScan, AStartedScanIsNamedToThePageInPlainText) {
    const CgiResponse response = get("id=manual_scan&mode=Scan");
    EXPECT_EQ(response.bytes, PLAIN_HEAD + "17_1");
    EXPECT_EQ(response.process.status, 0);
    EXPECT_EQ(sentByHandler(), Strings{"3/26"});
    EXPECT_TRUE(requests.back().params.empty());
    std::vector<std::pair<std::string, Answer>> answers = notAccepted();
    answers.emplace_back("no name", Answer::reply(1));
    for (const auto& [name, answer] : answers) {
        SCOPED_TRACE(name);
        service.on(M::START, M::MANUAL_SCAN, answer);
        EXPECT_EQ(post("id=manual_scan&mode=Scan").bytes, PLAIN_HEAD);
    }
}

namespace {

class ScanProgress : public ConsoleTest {
protected:
    ScanProgress() {
        console.writeTemplate("ScanOptions/scan_progress.html",
                              "running __REQUEST_ID__ __PROGRESS_PERCENT__ __INFECTED__ iProgressPercent=0 "
                              "iScannedFiles=0 iTotalFilesNeedToScan=0\n");
        console.writeTemplate("ScanOptions/scan_progress2.html",
                              "done __REQUEST_ID__ __TOTAL__ __SCANNED__ __INFECTED__\n");
        console.writeTemplate("ScanOptions/scan_progress_stop.html",
                              "stopped __REQUEST_ID__ __TOTAL__ __SCANNED__ __INFECTED__ [__PROGRESS_PERCENT__]\n");
        console.writeTemplate("ScanOptions/scan_progress_error.html", "failed __REQUEST_ID__\n");
    }
    CgiResponse ask(const std::map<std::string, std::string>& status) {
        service.on(M::GET, M::MANUAL_SCAN_STATUS, Answer::reply(1, status));
        return get("id=scan_progress_query&RequestID=17_1");
    }
};

using Status = std::map<std::string, std::string>;

Status counted(const char* state, const char* total, const char* scanned, const char* found) {
    return {{"Status", state}, {"Total", total}, {"Scanned", scanned}, {"VirusFound", found}, {"Message", "why"}};
}

}  // namespace

TEST_F(ScanProgress, EachStateOfAScanHasItsPage) {
    const std::vector<std::pair<Status, std::string>> cases{
        {counted("4", "9", "7", "2"),
         "running 17_1 77% 2 iProgressPercent=77 iScannedFiles=7 iTotalFilesNeedToScan=9\n"},
        {counted("4", "0", "7", "0"), "running 17_1 0% 0 iProgressPercent=0 iScannedFiles=7 iTotalFilesNeedToScan=0\n"},
        {counted("4", "9", "9", "0"),
         "running 17_1 100% 0 iProgressPercent=100 iScannedFiles=9 iTotalFilesNeedToScan=9\n"},
        {counted("4", "2147483647", "2147483646", "1"),
         "running 17_1 99% 1 iProgressPercent=99 iScannedFiles=2147483646 iTotalFilesNeedToScan=2147483647\n"},
        {counted("4", "99999999999", "2147483648", "9223372036854775808"),
         "running 17_1 100% 2147483647 iProgressPercent=100 iScannedFiles=2147483647 "
         "iTotalFilesNeedToScan=2147483647\n"},
        {{{"Status", "4"}}, "running 17_1 0% 0 iProgressPercent=0 iScannedFiles=0 iTotalFilesNeedToScan=0\n"},
        {counted("1", "9", "7", "2"), "stopped 17_1 9 7 2 [why]\n"},
        {{{"Status", "1"}}, "stopped 17_1 0 0 0 []\n"},
        {counted("2", "9", "7", "2"), "failed 17_1\n"},
        {counted("-1", "9", "7", "2"), "error page 17_1\n"},
        {counted("3", "9", "9", "2"), "done 17_1 9 9 2\n"},
        {counted("77", "9", "-1", "x"), "done 17_1 9 -1 0\n"},
        {counted("99999999999", "9", "-99999999999", ""), "done 17_1 9 -2147483648 0\n"},
        {{}, "done 17_1 0 0 0\n"},
    };
    for (const auto& [status, shown] : cases) {
        SCOPED_TRACE(shown);
        expectPage(ask(status), shown);
        EXPECT_EQ(sentByHandler(), Strings{"0/6"});
        EXPECT_EQ(lastParam("RequestID"), "17_1");
    }
}

TEST_F(ScanProgress, AScanThatIsNotThereIsAnErrorPageAndAComplaint) {
    const CgiResponse response = ask({{"Status", "-1"}});
    EXPECT_THAT(complaints(response), ElementsAre("1 MANUAL_SCAN_STATUS_NOT_RUNNING returned. Shouldn't happen"));
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        service.on(M::GET, M::MANUAL_SCAN_STATUS, answer);
        const CgiResponse failed = get("id=scan_progress_query&RequestID=17_1");
        expectPage(failed, "error page 17_1\n");
        EXPECT_TRUE(failed.logged(5, "GET ManualScanStatus failed but we don't put an error"));
    }
}

TEST_F(ScanProgress, StoppingShowsWhatTheScanHadReached) {
    service.on(M::GET, M::MANUAL_SCAN_STATUS, Answer::reply(1, counted("1", "9", "7", "2")));
    std::vector<std::pair<std::string, Answer>> answers = notAccepted();
    answers.emplace_back("stopped", Answer::reply(1));
    for (const auto& [name, answer] : answers) {
        SCOPED_TRACE(name);
        service.on(M::STOP, M::MANUAL_SCAN, answer);
        const CgiResponse response = post("id=stop_scan&RequestID=17_1");
        expectPage(response, "stopped 17_1 9 7 2 [why]\n");
        EXPECT_EQ(sentByHandler(), (Strings{"4/26", "0/6"}));
        for (std::size_t i = 3; i < requests.size(); ++i) {
            EXPECT_EQ(requests[i].value<std::string>("RequestID"), "17_1");
        }
        EXPECT_TRUE(response.logged(5, "stop_scan"));
        EXPECT_TRUE(response.logged(5, "ENTER, requestID=17_1"));
        EXPECT_TRUE(response.logged(5, "ENTER requestID=17_1"));
    }
}
