#include "webui/cgi/page_wrapper.h"

#include "tests/unit/webui/page_test.h"
#include "webui/cgi/string_mui.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;

namespace {

class Page : public PageTest {
protected:
    /// The body that the template gives in a page with these items.
    std::string body(const std::string& text, const std::vector<std::pair<std::string, std::string>>& items = {}) {
        console.writeTemplate("page.html", text);
        return written([&] {
                   CPageWrapper page(CPageWrapper::CONTENT_TYPE_NONE);
                   for (const auto& [name, value] : items) page.addDStringItem(name, value);
                   EXPECT_TRUE(page.outputPage("page.html"));
               })
            .substr(1);
    }
};

TEST_F(Page, TheBrowserGetsHeadersAndCookiesInOrderOfName) {
    const std::string response = written([] {
        CPageWrapper page(CPageWrapper::CONTENT_TYPE_PLAIN);
        page.addHeader("Status", "200");
        page.addHeader("Location", "/old");
        page.addHeader("Location", "/new");
        page.addCookie("b", "2");
        page.addCookie("a", "1; Path=/");
        page.outputPage("");
    });
    EXPECT_EQ(response,
              "Content-type: text/plain\nLocation: /new\nStatus: 200\nSet-Cookie: a=1; Path=/\nSet-Cookie: b=2\n\n");
}

TEST_F(Page, ARedirectIsFourLines) {
    EXPECT_EQ(written([] { redirectTo("/x"); }),
              "Content-type: text/html\nLocation: /x\nStatus: 307 Temporary Redirect\n\n");
}

TEST_F(Page, ItemsAreAppliedInOrderOfTheirNames) {
    EXPECT_EQ(body("AB", {{"AB", "no"}, {"A", "x"}}), "xB");
    EXPECT_EQ(body("A", {{"A", "B"}, {"B", "c"}}), "c") << "a value with a later name is substituted itself";
    EXPECT_EQ(body("B", {{"A", "c"}, {"B", "A"}}), "A") << "a value with an earlier name stays";
    EXPECT_EQ(body("A-A", {{"A", "AA"}}), "AA-AA") << "a value with its own name ends";
    EXPECT_EQ(body("aaa", {{"aa", ""}}), "a");
    EXPECT_EQ(body("__LOCALE__ __OTHER__"), "en-US __OTHER__");
    EXPECT_EQ(body("Zx aZ Zax ZaZaxZ", {{"aZ", "_"}}), "Zx _ Zax Z_axZ") << "wherever its rare byte stands";
    EXPECT_EQ(body("Z a", {{"aZ", "_"}}), "Z a") << "its rare byte where the name would begin before the page";
}

TEST_F(Page, MarkersGiveWayToTheTextsOfTheLanguage) {
    console.write("templates/en-US/string.mui",
                  "%[S]%=s\n%[LONGER]%=x\n%[NEST]%=123456789 %[S]%\n%[EQ]%=a=b\n%[CR]%=c\r\nno entry\n%[S]%=t");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"%[S]%", "t"},
        {"<%[EQ]%>    <%[S]%>", "<a=b>    <t>"},
        {"%[NEST]%", "123456789 t"},
        {"%[CR]%", "c\r"},
        {"%[NONE]% %[S]%", "%[NONE]% t"},
        {"%[S]% %[S", "t %[S"},
        {"%[X %[S]% %[S]%", "%[X %[S]% t"},  // a marker reaches to the next end, whatever it holds
        {"%[]%", "%[]%"},
        {"%[LONGER]%%[S]%", "x%[S]%"},                // within the length that the marker lost
        {"%[LONGER]%         %[S]%", "x         t"},  // and behind it
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(body(text), expected);
    const std::string longest(100000, 'x');
    console.write("templates/en-US/string.mui", "%[S]%=s\n%[LONG]%=" + longest + "%[S]%\n");
    EXPECT_EQ(body("%[LONG]%    %[LONG]%"), longest + "s    " + longest + "s") << "texts longer than any page";
}

TEST_F(Page, AMarkerMayComeFromALongTextButNotFromAnItem) {
    console.write("templates/en-US/string.mui", "%[S]%=text\n");
    EXPECT_EQ(body("A", {{"A", "%[S]%"}}), "%[S]%");
}

TEST_F(Page, NamesThatClimbGetTheErrorPageOfTheProgram) {
    console.write("cgi/error.html", "error of the program");
    for (const char* name : {"../x.html", "a/../b", "a..b"}) {
        EXPECT_EQ(written([&] { CPageWrapper(CPageWrapper::CONTENT_TYPE_PLAIN).outputPage(name); }),
                  "Content-type: text/html\n\nerror of the program");
    }
    EXPECT_THAT(logged(2), ElementsAre("Illigal page name detected. strPageName=../x.html",
                                       "Illigal page name detected. strPageName=a/../b",
                                       "Illigal page name detected. strPageName=a..b"));
}

TEST_F(Page, AMissingTemplateLeavesTheResponseToTheCaller) {
    for (const char* name : {"none.html", "../none.html"}) {
        EXPECT_EQ(written([&] { EXPECT_FALSE(CPageWrapper(CPageWrapper::CONTENT_TYPE_HTML).outputPage(name)); }), "");
    }
    EXPECT_EQ(logged(2).back(), "Failed to load a page");
}

TEST_F(Page, LongLinesAreKeptWhole) {
    const std::string line(5000, 'x');
    EXPECT_EQ(body(line + "\n" + line), line + "\n" + line);
}

TEST_F(Page, EveryKindOfValueBecomesText) {
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    const std::array<char, 2048> buffer{"buffer"};
    page.addDStringItem("A", buffer.data());
    page.addDStringItem("B", 42U);
    page.addDStringItem("C", static_cast<const char*>(nullptr));
    page.addDStringItem("D", "");
    page.addDStringItem("E", "text");
    EXPECT_EQ(page.replace("C", "C") + page.replace("D", "D"), "");
    EXPECT_EQ(page.replace("A", "A") + page.replace("B", "B") + page.replace("E", "E"), "buffer42text");
    EXPECT_EQ(page.replace("a UNKNOWN b", "UNKNOWN"), "a  b");
    EXPECT_EQ(page.replace("text", ""), "text");
}

TEST_F(Page, ItemsCanComeFromAFile) {
    console.write("cgi/items", "; comment one\nA 1 rest\n;B 2\nC\nvalue rest\nA 3\nL");
    CPageWrapper page(CPageWrapper::CONTENT_TYPE_HTML);
    EXPECT_TRUE(page.setDString("items"));
    EXPECT_EQ(page.replace("A C", "A"), "3 C");
    EXPECT_EQ(page.replace("C", "C"), "value");
    console.writeTemplate("page.html", ";B L");
    EXPECT_EQ(written([&] { page.outputPage("page.html"); }), "Content-type: text/html\n\n;B L");
    EXPECT_FALSE(page.setDString("none"));
    EXPECT_THAT(logged(2), ElementsAre("Failed to open none"));
}

TEST_F(Page, AStringTableTellsWhatIsWrongWithIt) {
    CStringMUI table;
    std::string value = "untouched";
    EXPECT_EQ(table.Initialize(""), 1);
    EXPECT_EQ(table.Initialize("none.mui"), 3);
    console.write("cgi/table", " K = v\n=nobody\nK=1\n");
    EXPECT_EQ(table.Initialize("table"), 0);
    EXPECT_EQ(table.GetValue("", value), 1);
    EXPECT_EQ(table.GetValue("none", value), 2);
    EXPECT_EQ(value, "untouched");
    EXPECT_EQ(table.GetValue(" K ", value), 0);
    EXPECT_EQ(value, " v");
    EXPECT_THAT(logged(1), ElementsAre("Invalid argument.", "Failed to open file."));
}

}  // namespace
