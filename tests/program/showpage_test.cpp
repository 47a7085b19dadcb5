#include "tests/program/console_test.h"

using Strings = std::vector<std::string>;

namespace {

class ShowPage : public ConsoleTest {
protected:
    ShowPage() {
        console.writeTemplate("norv_main.html", "main __LOCALE__\n");
        console.writeTemplate("update_manual.html",
                              "bUpdateEngine=false\nbUpdatePattern=false\nbUpdateSpywarePattern=false\n"
                              "__SCAN_ENGINE_VERSION__ __ENGINE_LAST_UPDATE__\n"
                              "__VIRUS_PATTERN_VERSION__ __PATTERN_LAST_UPDATE__\n"
                              "__SPYWARE_PATTERN_VERSION__ __SPYWARE_PATTERN_LAST_UPDATE__\n");
        console.writeTemplate("other.html", "not for everybody\n");
        console.write("secret.html", "outside\n");
    }
    CgiResponse show(const std::string& query) {
        return console.run(consoleProgram("showpage.cgi"), CgiRequest::get(query));
    }
};

}  // namespace

TEST_F(ShowPage, TheMainPageIsShownToWhoIsLoggedOn) {
    expectPage(show("page=norv_main.html"), "main en-US\n");
    EXPECT_EQ(sent(), Strings{"5/33"});
    service.on(M::SESSION, M::SESSION_CHECK, Answer::refuse(2));
    expectLogOn(show("page=norv_main.html"));
}

TEST_F(ShowPage, TheUpdateFormShowsWhatIsInstalledAndWhatWouldBeUpdated) {
    defaults.document = document(
        "<Group Type=\"Varnel\"><P Name=\"ManualComponents\" Value=\"33\"/><P Name=\"ScheduledComponents\" "
        "Value=\"2\"/>"
        "<P Name=\"EngineVersion\" Value=\"1.0.9\"/><P Name=\"EngineLastUpdate\" Value=\"monday\"/>"
        "<P Name=\"VirusPatternVersion\" Value=\"27\"/><P Name=\"VirusPatternLastUpdate\" Value=\"tuesday\"/>"
        "<P Name=\"SpywarePatternVersion\" Value=\"5\"/><P Name=\"SpywarePatternLastUpdate\" "
        "Value=\"friday\"/></Group>");
    serve();
    expectPage(show("page=update_manual.html"),
               "bUpdateEngine=false\nbUpdatePattern=true\nbUpdateSpywarePattern=true\n"
               "1.0.9 monday\n27 tuesday\n5 friday\n");
}

TEST_F(ShowPage, NoOtherFileCanBeReached) {
    for (const char* query : {"", "page=", "page=other.html", "page=../secret.html", "page=../templates/norv_main.html",
                              "page=./norv_main.html", "page=norv_main.html%00", "page=en-US/string.mui",
                              "page=/etc/passwd", "page=NORV_MAIN.HTML", "id=norv_main.html"}) {
        SCOPED_TRACE(query);
        expectPage(show(query), "not supported\n");
    }
}
