#include "tests/program/console_test.h"

using testing::HasSubstr;
using testing::Not;
using Strings = std::vector<std::string>;

namespace {

const std::string JSON_HEAD = "Content-type: application/json\n\n";

/// What the scripts of the overview and of the progress page ask for.
class Overview : public ConsoleTest {
protected:
    Overview() {
        service.on(
            M::GET, M::SERVICE_STATUS,
            Answer::reply(1, {{"Configuration", ""},
                              {"Database", "loaded"},
                              {"EngineMessage", "The signatures in /s cannot be loaded."},
                              {"DatabaseTime", "1700000000"},
                              {"RealtimeRunning", "1"},
                              {"RealtimeAllowed", "1"},
                              {"NextScan", "1700009999"},
                              {"Quarantined", "3"},
                              {"Untreated", "2"},
                              {"UntreatedScan", "17_1"},
                              {"Verdict", "attention"},
                              {"Reasons", R"([{"reason":"share_missing","severity":"attention","text":"A folder",)"
                                          R"("detail":"/srv/\"a\"","count":2,"unit":"folders"}])"}}));
        service.on(M::GET, M::UPDATE_STATUS,
                   Answer::reply(1, {{"Running", "1"}, {"Progress", "4"}, {"RequestID", "9"}}));
        service.on(M::GET, M::SCAN_HISTORY,
                   Answer::reply(1, {{"Scans", R"([{"id":"18_1","kind":"manual","state":4,"total":9,"scanned":4},)"
                                               R"({"id":"17_1","kind":"path","state":3,"found":2,"ended":55}])"}}));
        service.on(M::GET, M::EVENTS,
                   Answer::reply(1, {{"Events", R"([{"time":60,"path":"/live","task":"realtime","signature":"X",)"
                                                R"("action":"deleted"},{"time":59,"detail":"Further finds"},)"
                                                R"({"time":55,"path":"/a\"b","task":"manual"}])"}}));
    }
    CgiResponse ask(const std::string& program, const std::string& query = "") {
        return console.run(consoleProgram(program), CgiRequest::get(query));
    }
};

}  // namespace

TEST_F(Overview, OneAnswerHoldsAllThatThePageShows) {
    const CgiResponse response = ask("overview.cgi");
    EXPECT_EQ(response.bytes.substr(0, JSON_HEAD.size()), JSON_HEAD);
    for (const char* part :
         {R"("verdict":"attention","reasons":[{"reason":"share_missing","severity":"attention","text":"A folder",)",
          R"("detail":"/srv/\"a\"","count":2,"unit":"folders"}])",
          R"("realtime":{"wanted":false,"running":true,"possible":true})", R"("loaded":true,"unloaded":true)",
          R"("update":{"running":true,"id":"9","progress":40,)", R"("running":[{"id":"18_1","kind":"manual","state":4)",
          R"("lastScans":[{"id":"17_1","kind":"path")", R"("nextScan":1700009999,"quarantined":3,"untreated":2)",
          R"("finds":[{"when":60,"path":"/live","signature":"X","detail":"deleted","task":"realtime"},{"when":55,)",
          R"("path":"/a\"b",)"})
        EXPECT_THAT(response.body, HasSubstr(part));
    EXPECT_THAT(response.body, Not(HasSubstr("Further"))) << "a number is no find";
}

TEST_F(Overview, ListsThatCannotBeHadDoNotHideTheRest) {
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        for (const auto command : {M::SCAN_HISTORY, M::EVENTS, M::UPDATE_STATUS}) service.on(M::GET, command, answer);
        EXPECT_THAT(ask("overview.cgi").body, HasSubstr(R"("running":[],"lastScans":[],"nextScan":1700009999)"));
    }
    service.on(M::GET, M::SCAN_HISTORY, Answer::reply(1, {{"Scans", "[1,{},"}}));
    EXPECT_THAT(ask("overview.cgi").body, HasSubstr(R"("running":[])"));
}

TEST_F(Overview, NothingIsToldWithoutASession) {
    for (const auto check : {M::SESSION_CHECK, M::SESSION_WATCH}) service.on(M::SESSION, check, Answer::refuse(2));
    // What a page asks by itself is no use of the session.
    for (const auto& [program, check] :
         {std::pair{"overview.cgi", "5/113"}, {"scanstatus.cgi", "5/113"}, {"folders.cgi", "5/33"}}) {
        sent();
        expectLogOn(ask(program, "RequestID=17_1&path=/"));
        EXPECT_EQ(sent(), (Strings{check, "0/1"})) << program;
    }
}

TEST_F(Overview, AScriptIsToldThatTheServiceIsAwayInsteadOfBeingSentToTheLogOn) {
    for (const auto command : {M::CONFIG_FILE_CHECK, M::CONFIG_FILE_STATE, M::SERVICE_STATUS})
        service.on(M::GET, command, Answer::hangUp());
    for (const auto check : {M::SESSION_CHECK, M::SESSION_WATCH}) service.on(M::SESSION, check, Answer::hangUp());
    for (const char* program : {"overview.cgi", "scanstatus.cgi", "folders.cgi"}) {
        const CgiResponse response = ask(program);
        EXPECT_THAT(response.bytes, HasSubstr("Status: 503 Service Unavailable")) << program;
        EXPECT_EQ(response.body, "{\"error\":\"" + NOT_RESPONDING + "\"}") << program;
    }
}

TEST_F(Overview, TheProgressOfAScanGoesOnFromTheFindThatWasShownLast) {
    service.on(M::GET, M::MANUAL_SCAN_STATUS,
               Answer::reply(1, {{"Status", "4"},
                                 {"Total", "9"},
                                 {"Scanned", "7"},
                                 {"Skipped", "1"},
                                 {"CurrentFile", "/a/\"x\""},
                                 {"Kind", "manual"}}));
    service.on(M::GET, M::SCAN_FINDS,
               Answer::reply(1, {{"Finds", R"([{"path":"/a\"b","infected":true,"type":"Virus","detail":"deleted"},)"
                                           R"({"path":"/c","infected":false,"detail":"it is encrypted"}])"}}));
    const CgiResponse response = ask("scanstatus.cgi", "RequestID=17_1&From=5");
    EXPECT_THAT(response.body, HasSubstr(R"({"state":4,"total":9,"scanned":7,"found":0)"));
    EXPECT_THAT(response.body, HasSubstr(R"("currentFile":"/a/\"x\"")"));
    EXPECT_THAT(response.body, HasSubstr(R"("from":5,"finds":[{"path":"/a\"b",)"));
    EXPECT_THAT(response.body, HasSubstr(R"("infected":false,"left":false}])"));
    EXPECT_EQ(sentByHandler(), (Strings{"0/6", "0/102"}));
    EXPECT_EQ(lastParam("RequestID"), "17_1");
    EXPECT_EQ(lastParam("From"), "5");
    ask("scanstatus.cgi", "RequestID=17_1&From=-3");
    sent();
    EXPECT_EQ(lastParam("From"), "0");
}

TEST_F(Overview, AScanThatIsNotThereIsNotFound) {
    const CgiResponse response = ask("scanstatus.cgi", "RequestID=1_1");
    EXPECT_THAT(response.bytes, HasSubstr("Status: 404 Not Found"));
    EXPECT_EQ(response.process.status, 1);
}
