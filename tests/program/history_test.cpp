#include "tests/harness/message_catalogue.h"
#include "tests/program/console_test.h"

using Strings = std::vector<std::string>;

namespace {

const std::string JSON_HEAD = "Content-type: application/json\n\n";

std::string csvHead(const std::string& fileName) {
    return "Content-Disposition: attachment; filename=\"" + fileName + "\"\nContent-type: text/csv; charset=utf-8\n\n" +
           "\xEF\xBB\xBF";
}
const std::string SCAN_COLUMNS =
    "Scan,Kind,State,Started (server time),Ended (server time),Seconds,Files scanned,Infected,Not fully "
    "scanned,Skipped,Bytes,Remark\r\n";
const std::string FIND_COLUMNS = "File,Result,Malware,Type,What was done\r\n";

class History : public ConsoleTest {
protected:
    History() { console.writeTemplate("history.html", "history __LOCALE__\n"); }
    void serveScans(const std::string& scans) {
        service.on(M::GET, M::SCAN_HISTORY, Answer::reply(1, {{"Scans", scans}}));
    }
    /// The reports, a page for each request.
    void serveFinds(const Strings& pages) {
        std::deque<Answer> answers;
        for (const std::string& page : pages)
            answers.push_back(Answer::reply(1, {{"Finds", page}, {"More", &page == &pages.back() ? "0" : "1"}}));
        service.on(M::GET, M::SCAN_FINDS, answers);
    }
    CgiResponse ask(const std::string& query) {
        CgiRequest request = CgiRequest::get(query);
        request.environment["TZ"] = "UTC";
        return console.run(consoleProgram("history.cgi"), request);
    }
};

}  // namespace

TEST_F(History, ThePageIsShownToWhoIsLoggedOnOnly) {
    expectPage(ask(""), "history en-US\n");
    service.on(M::SESSION, M::SESSION_CHECK, Answer::refuse(2));
    for (const char* query : {"", "list=1", "csv=1", "RequestID=17_1", "csv=1&RequestID=17_1"}) {
        sent();
        expectLogOn(ask(query));
        EXPECT_EQ(sent(), Strings{"5/33"}) << query;
    }
}

TEST_F(History, ScansAndFindsReachThePageAsTheServiceKnowsThem) {
    const std::string scan =
        R"([{"id":"17_1","kind":"path","state":3,"total":9,"scanned":8,"found":2,"notFullyScanned":1,"skipped":1,)"
        R"("bytes":5,"started":6,"ended":7,"message":"a \"b\"","outcome":"failed","lastFile":"/x","saved":false}])";
    serveScans(scan);
    EXPECT_EQ(ask("list=1").bytes, JSON_HEAD + "{\"scans\":" + scan + ",\"more\":false}");
    sent();
    const std::string find =
        R"([{"path":"/ä\u0001","infected":true,"signature":"E","type":"Virus","detail":"deleted","left":true,)"
        R"("skipped":false}])";
    serveFinds({find, "[]"});
    EXPECT_EQ(ask("RequestID=17_1&From=1000").bytes, JSON_HEAD + "{\"finds\":" + find + ",\"more\":true}");
    EXPECT_EQ(sentByHandler(), Strings{"0/102"});
    EXPECT_EQ(lastParam("RequestID"), "17_1");
    EXPECT_EQ(lastParam("From"), "1000");
    ask("RequestID=17_1&From=-5");
    sent();
    EXPECT_EQ(lastParam("From"), "0");
}

TEST_F(History, ScansAreSavedAsCsv) {
    serveScans(
        R"([{"id":"17_1","kind":"manual","state":3,"started":1700000000,"ended":1700000090,"scanned":46,"found":2,)"
        R"("notFullyScanned":1,"skipped":0,"bytes":1230000,"message":"The scan is complete."},)"
        R"({"id":"17_2","kind":"path","state":4,"started":1700000100,"ended":0,"message":""},)"
        R"({"id":"17_3","state":"3","started":"x"}])");
    EXPECT_EQ(ask("csv=1").bytes,
              csvHead("keldra-scans.csv") + SCAN_COLUMNS +
                  "17_1,Manual Scan,completed,2023-11-14 22:13:20,2023-11-14 22:14:50,90,46,2,1,0,1230000,The scan is "
                  "complete.\r\n"
                  "17_2,Scan from the command line,running,2023-11-14 22:15:00,,,0,0,0,0,0,\r\n"
                  "17_3,,,,,,0,0,0,0,0,\r\n");
}

TEST_F(History, FindsAreSavedAsCsvWholly) {
    serveFinds({R"([{"path":"/srv/a","infected":true,"signature":"Eicar","type":"Test_Virus","detail":"deleted"}])",
                R"([{"path":"/srv/b","infected":false,"signature":"","type":"","detail":"it is encrypted"}])"});
    EXPECT_EQ(ask("csv=1&RequestID=17_1").bytes, csvHead("keldra-scan-17_1.csv") + FIND_COLUMNS +
                                                     "/srv/a,Infected,Eicar,Test_Virus,deleted\r\n"
                                                     "/srv/b,Not fully scanned,,,it is encrypted\r\n");
    EXPECT_EQ(sentByHandler(), (Strings{"0/102", "0/102"}));
    EXPECT_EQ(lastParam("From"), "1");
}

TEST_F(History, NamesOfFilesCannotBreakTheTableRunAsFormulasOrPoseAsOthers) {
    serveFinds({R"([{"path":"/a,\"b\"\r\nc","detail":"=1+1"},{"path":"+x","signature":"-y","detail":"@z"},)"
                R"({"path":"\tx\u202etxt\u00ad\udb40\udc41.exe","detail":"=\"a\""}])"});
    EXPECT_EQ(ask("csv=1&RequestID=17_1").bytes,
              csvHead("keldra-scan-17_1.csv") + FIND_COLUMNS +
                  "\"/a,\"\"b\"\"⟨U+000D⟩⟨U+000A⟩c\",Not fully scanned,,,'=1+1\r\n"
                  "'+x,Not fully scanned,'-y,,'@z\r\n"
                  "⟨U+0009⟩x⟨U+202E⟩txt⟨U+00AD⟩⟨U+E0041⟩.exe,Not fully scanned,,,\"'=\"\"a\"\"\"\r\n");
}

TEST_F(History, WhatWasDoneIsToldInTheLanguageOfTheConsole) {
    console.write("locale/de_DE/LC_MESSAGES/messages.mo",
                  messageCatalogue({{"clean failed", "Nicht gesäubert"},
                                    {"the engine cannot clean files", "geht nicht"},
                                    {"moved to quarantine", "in Quarantäne"},
                                    {"renamed to", "umbenannt in"},
                                    {"no limit", "ohne Grenze"}}));
    console.write("templates/de-DE/string.mui", "");
    serveFinds({R"([{"detail":"clean failed: the engine cannot clean files; moved to quarantine"},)"
                R"({"detail":"renamed to no limit"},)"
                "{\"detail\":\"no limit (Heuristics)\"}]"});
    CgiRequest request = CgiRequest::get("RequestID=17_1");
    request.environment["KELDRA_LOCALE"] = "de-DE";
    const std::string page = console.run(consoleProgram("history.cgi"), request).body;
    for (const char* text :
         {"Nicht gesäubert: geht nicht; in Quarantäne", "umbenannt in no limit", "ohne Grenze (Heuristics)"})
        EXPECT_THAT(page, testing::HasSubstr(std::string(R"("detail":")") + text + '"'));
}

TEST_F(History, WhatNoCatalogueKnowsIsShownAsTheServiceSaidIt) {
    for (const char* const text : {"", "clean failed: why; moved", "renamed to a; b: c (d).infected", "x (y)", ": ",
                                   "; ; ", "a limit (", "(", ")", " ()"}) {
        SCOPED_TRACE(text);
        const std::string detail = std::string(R"("detail":")") + text + '"';
        serveFinds({"[{" + detail + "}]"});
        EXPECT_THAT(ask("RequestID=17_1").body, testing::HasSubstr(detail));
    }
}

TEST_F(History, TheNameOfAFileToSaveIsNeverTheBrowsersChoice) {
    for (const char* id : {"..%2F17", "17%0D%0AX-Header:1", "17%22", "abc"}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(ask(std::string("csv=1&RequestID=") + id).bytes,
                  "Content-type: application/json\nStatus: 404 Not Found\n\n{\"error\":\"There is no such scan.\"}");
        EXPECT_EQ(sentByHandler(), Strings{});
    }
}

TEST_F(History, AFailureIsToldInsteadOfAHalfTable) {
    const auto error = [](const std::string& status, const std::string& message) {
        return "Content-type: application/json\nStatus: " + status + "\n\n{\"error\":\"" + message + "\"}";
    };
    service.on(M::GET, M::SCAN_FINDS,
               {Answer::reply(1, {{"Finds", R"([{"path":"/a"}])"}, {"More", "1"}}), Answer::hangUp()});
    EXPECT_EQ(ask("csv=1&RequestID=17_1").bytes, error("503 Service Unavailable", NOT_RESPONDING));
    service.on(M::GET, M::SCAN_FINDS, Answer::reply(2, {{"Message", "There is no such scan."}}));
    EXPECT_EQ(ask("RequestID=17_1").bytes, error("404 Not Found", "There is no such scan."));
    for (const char* nonsense : {"", "{", "{}", "[1]", "[[]]"}) {
        SCOPED_TRACE(nonsense);
        serveScans(nonsense);
        EXPECT_EQ(ask("list=1").bytes, error("502 Bad Gateway", "The answer of the service cannot be read."));
    }
}
