#include "tests/program/console_test.h"

using Strings = std::vector<std::string>;

namespace {

/// What a settings page tells and asks, where all of them do alike.
struct Page {
    const char* id;
    const char* title;
    const char* name;
    const char* pageTemplate;
    IPCMessage::CommandID command;
    const char* parameter;
    bool asksAlsoWhenOlder;   ///< whether a stamp newer than the configuration's is doubted, too
    bool tellsUnreadOnAlert;  ///< whether a question that cannot be asked is answered as a failure instead of nothing
};

std::ostream& operator<<(std::ostream& out, const Page& page) { return out << page.id; }

class SettingsPages : public ConsoleTest, public testing::WithParamInterface<Page> {
protected:
    SettingsPages() { console.writeTemplate(page.pageTemplate, "settings bIsConfigFileModified=false\n"); }
    CgiResponse show() { return get(std::string("id=") + page.id); }
    CgiResponse save(const std::string& fields) {
        return post(std::string("id=") + page.id + "&mode=Save&E1=ON22&" + fields);
    }
    std::string message(int operation) const { return std::to_string(operation) + "/" + std::to_string(page.command); }
    std::string saved() const {
        return std::string("success\n") + page.title + "\n" + SAVED + "\n\n./scanoption.cgi?id=" + page.id + "\n";
    }
    std::string failed() const {
        return std::string("failure\n") + page.title + "\nUnable to apply the new " + page.name + " settings.\n" +
               NOT_RESPONDING + "\n./scanoption.cgi?id=" + page.id + "\n";
    }
    const Page page = GetParam();
};

const std::string OLDER = "hvLastConfigFileModifiedDate=1699999999";
const std::string SAME = "hvLastConfigFileModifiedDate=1700000000";
const std::string NEWER = "hvLastConfigFileModifiedDate=1700000001";

}  // namespace

TEST_P(SettingsPages, ASaveIsReportedAsTheServiceAnsweredIt) {
    const CgiResponse response = save(SAME);
    expectPage(response, saved());
    EXPECT_EQ(sentByHandler(), (Strings{message(M::GET), message(M::SET)}));
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        service.on(M::SET, page.command, answer);
        expectPage(save(SAME), failed());
    }
}

TEST_P(SettingsPages, SettingsThatCannotBeReadAreNeitherShownNorOverwritten) {
    std::vector<std::pair<std::string, Answer>> answers = notAccepted();
    answers.emplace_back("no record", Answer::reply(1));
    for (const char* text : {"", "{", "[]", R"({"NORVSomethingElse":{}})"})
        answers.emplace_back(text, Answer::reply(1, {{page.parameter, text}}));
    for (const auto& [name, answer] : answers) {
        SCOPED_TRACE(name);
        service.on(M::GET, page.command, answer);
        expectNothing(show(), 0);
        if (page.tellsUnreadOnAlert)
            expectPage(save(OLDER), failed());
        else
            expectNothing(save(OLDER), 0);
        sent();
        expectPage(save(SAME), failed());
        EXPECT_EQ(sentByHandler(), Strings{message(M::GET)}) << "a save over unknown settings would wipe them";
    }
}

TEST_P(SettingsPages, NobodysChangeIsOverwrittenUnasked) {
    for (const std::string& stamp : {OLDER, std::string(), OLDER + "&bOverWrite=TRUE"}) {
        SCOPED_TRACE(stamp);
        const CgiResponse response = save(stamp);
        expectPage(response, "settings bIsConfigFileModified=true\n");
        EXPECT_TRUE(response.logged(5, "show alert"));
        EXPECT_EQ(sentByHandler(), (Strings{message(M::GET), "0/22"}));
    }
    expectPage(save(OLDER + "&bOverWrite=true"), saved());
    expectPage(save(NEWER), page.asksAlsoWhenOlder ? "settings bIsConfigFileModified=true\n" : saved());
}

INSTANTIATE_TEST_SUITE_P(
    , SettingsPages,
    testing::Values(Page{"manual_scan", "Manual Scan", "manual scan", "ScanOptions/Manual.html",
                         IPCMessage::MANUAL_SCAN_CONFIG, "ManualScanConfig", true, false},
                    Page{"realtime_scan", "Real-time Scan", "real-time scan", "ScanOptions/Real-time.html",
                         IPCMessage::REALTIME_SCAN_CONFIG, "RealtimeScanConfig", false, true},
                    Page{"scheduled_scan", "Scheduled Scan", "scheduled scan", "ScanOptions/Scheduled.html",
                         IPCMessage::SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig", false, false}));
