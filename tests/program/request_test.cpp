#include "tests/program/console_test.h"

using testing::ElementsAre;
using Strings = std::vector<std::string>;
using namespace std::string_literals;

namespace {

/// Every text that the program reads of a request can be watched where it reaches the service: as the identifier of a
/// scan whose progress is asked for.
class Request : public ConsoleTest {
protected:
    Request() {
        console.writeTemplate("ScanOptions/scan_progress2.html", "progress");
        service.on(M::GET, M::MANUAL_SCAN_STATUS, Answer::reply(1, {{"Status", "3"}}));
    }
    void expectRefused(const CgiResponse& response) {
        expectNothing(response, 1);
        EXPECT_THAT(complaints(response), ElementsAre("2 Parsing query string failed"));
        EXPECT_TRUE(response.logged(5, "Query String matchs invalid regular expression"));
        EXPECT_EQ(sent(), (Strings{"0/1", "0/2"}));
    }
};

const std::string QUERY = "id=scan_progress_query&RequestID=";

}  // namespace

TEST_F(Request, WhatTheUserTypedArrivesUnchanged) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"1+2%2B3", "1 2+3"},
        {"a%26b%3Dc", "a&b=c"},
        {"%c3%A9%E6%97%A5\xc3\xa9", "\xc3\xa9\xe6\x97\xa5\xc3\xa9"},
        {"100%", "100%"},
        {"%zz", "S"},
        {"1&RequestID=2", "1"},
        {"%3Cabbr+x%3E<b>", "<abbr x><b>"},
        {"a%00b%0A\"'%5C", "a\0b\n\"'\\"s}};
    for (const auto& [typed, arrived] : cases) {
        SCOPED_TRACE(typed);
        for (const bool posted : {false, true}) {
            expectPage(posted ? post(QUERY + typed) : get(QUERY + typed), "progress");
            EXPECT_EQ(sentByHandler(), Strings{"0/6"});
            EXPECT_EQ(lastParam("RequestID"), arrived);
        }
    }
}

TEST_F(Request, EachFieldIsTracedAsItWasUnderstood) {
    const CgiResponse response = get("a=1+2&a=3&flag&=x&b=%0Ay");
    Strings fields;
    for (const std::string& message : response.logged(5)) {
        if (message.rfind("name=", 0) == 0) fields.push_back(message);
    }
    EXPECT_EQ(fields, (Strings{"name=a   value=1 2", "name=a   value=3", "name=flag   value=", "name=   value=x",
                               "name=b   value=\\ny"}));
}

TEST_F(Request, AFormIsItsFirstLineAndAnAddressEndsAtALineEnd) {
    post(QUERY + "7\n&RequestID=8");
    sent();
    EXPECT_EQ(lastParam("RequestID"), "7");
    get("RequestID=7\nx&id=scan_progress_query");
    sent();
    EXPECT_EQ(lastParam("RequestID"), "7");
}

TEST_F(Request, AFormAndAnAddressAreNeverMixed) {
    run({.method = "POST", .query = QUERY + "query", .body = QUERY + "form"});
    sent();
    EXPECT_EQ(lastParam("RequestID"), "form");
    run({.method = "GET", .query = QUERY + "query", .body = QUERY + "form"});
    sent();
    EXPECT_EQ(lastParam("RequestID"), "query");
    expectPage(run({.method = "POST", .query = QUERY + "query"}), "not supported\n");
    expectPage(run({.method = "GET", .query = std::nullopt}), "not supported\n");
}

TEST_F(Request, MarkUpIsRefusedHoweverItIsWritten) {
    for (const char* text : {"<script>", "%3c%73cript", "a<a+href=x>", "a=%00&b=<script>"}) {
        SCOPED_TRACE(text);
        expectRefused(get("id=nowhere&x=" + std::string(text)));
        expectRefused(post("id=nowhere&x=" + std::string(text)));
    }
    expectRefused(get("%3Cscript=1"));
}

TEST_F(Request, AMethodThatIsNeitherGetNorPostCarriesNoFields) {
    for (const std::optional<std::string>& method :
         std::vector<std::optional<std::string>>{std::nullopt, "", "HEAD", "get", "GET ", "PUT", "POSTED"}) {
        SCOPED_TRACE(method.value_or("unset"));
        const CgiResponse response =
            run({.method = method, .query = "id=default_ext&x=<script>", .body = "id=default_ext"});
        expectPage(response, "not supported\n");
        EXPECT_THAT(complaints(response), ElementsAre("2 Proper HTTP request method is not detected"));
        EXPECT_EQ(sent(), (Strings{"0/1", "0/2", "5/33"}));
        EXPECT_EQ(lastParam("RequestMethod"), method.value_or(""));
    }
}

TEST_F(Request, ALargeFormIsReadInReasonableTime) {
    const std::string large(1024 * 1024, 'x');
    const CgiResponse response = post("first=" + large + "&" + QUERY + "last");
    expectPage(response, "progress");
    EXPECT_LT(response.process.elapsed, std::chrono::seconds(20));
    sent();
    EXPECT_EQ(lastParam("RequestID"), "last");
    EXPECT_TRUE(response.logged(5, "name=first   value=" + large));
    expectRefused(post("first=" + large + "<script>&id=nowhere"));
}
