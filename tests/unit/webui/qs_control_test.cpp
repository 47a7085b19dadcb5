#include "webui/cgi/qs_control.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace std::string_literals;

namespace {

using Parameters = std::map<std::string, std::string>;

TEST(Request, FormValuesArriveAsTyped) {
    const std::vector<std::pair<std::string, Parameters>> cases = {
        {"", {}},
        {"a=1&a=2", {{"a", "1"}}},
        {"flag", {{"flag", ""}}},
        {"a=b=c", {{"a", "b=c"}}},
        {"x=1+2%2B3", {{"x", "1 2+3"}}},
        {"x=%3", {{"x", "%3"}}},
        {"x=%", {{"x", "%"}}},
        {"x=%41&%62=c", {{"x", "A"}, {"b", "c"}}},
        {"x=%3d%26&y=1", {{"x", "=&"}, {"y", "1"}}},
        {"a=1&&b=2&", {{"a", "1"}, {"", ""}, {"b", "2"}}},
        {"=v&a", {{"", "v"}, {"a", ""}}},
        {"x=one\ntwo&y=1", {{"x", "one"}, {"y", "1"}}},
        {"x=%C3%A4%0A", {{"x", "\xc3\xa4\n"}}},
        {"x=a%00b", {{"x", "a\0b"s}}},
        {"x=1\0&y=2"s, {{"x", "1"}}},
    };
    for (const auto& [text, expected] : cases) {
        CQSControl request;
        EXPECT_TRUE(request.parse(text)) << text;
        EXPECT_EQ(request.parameters(), expected) << text;
    }
}

TEST(Request, MarkUpIsRefusedHoweverItIsWritten) {
    const std::vector<std::string> refused = {
        "q=%3Cscript%3E", "q=<script>", "q=<SCRIPT", "q=<%20/iframe", "q=<//%20/IMG", "q=<a%20href", "q=<a+href",
        "<//// img src=x", "<++++iframe", "</body", "x%0A%3Cstyle", "<a+b", "<metal", "<bodyguard", "<table",
        "<svg/onload", "<isindex", "<bgsound", "<base", "<div", "<embed", "<input", "<link", "<object", "%+1%3Cscript",
        "a=%3&x=%3Cscript%3E%", "a=%&3Cscript=%3Cscript%3E", "%00=%00&id=%3Cimg+src=x", "a=%/@<script>", "<svg",
        "a=1&b=x%3cvideo", "a=%00&b=<script>", "a=%g0<body", "%3Cli%6Ek=1",
        // Decodes to something harmless as a whole, and piece by piece to <img …>.
        "x=%&%%4%%P%%T%%L%%?%%T%%P%%U%%\\%%[%7%=%3Cimg+src=x+onerror=alert(1)%3E"};
    for (const std::string& text : refused) EXPECT_FALSE(CQSControl().parse(text)) << text;
    const std::vector<std::string> accepted = {
        "q=<abbr",   "q=<b>",    "q=<a", "q=< / b", "q=script>", "q=%253Cscript", "q=a<\nscript", "&lt;script",
        "<\\script", "<-script", "<",    "<tab",    "<+x"};
    for (const std::string& text : accepted) EXPECT_TRUE(CQSControl().parse(text)) << text;
}

TEST(Request, NothingOfARefusedRequestBehindANulByteIsRead) {
    CQSControl request;
    EXPECT_TRUE(request.parse("a=1\0&b=<script>"s));
    EXPECT_EQ(request.getEnv("b"), "");
}

TEST(Request, NumbersAreReadAsFarAsTheyGo) {
    const std::vector<std::pair<std::string, int>> cases = {{"42", 42}, {"  42x", 42}, {"12ab", 12},
                                                            {"x42", 0}, {"", 0},       {"-7", -7},
                                                            {"+3", 3},  {"0x10", 0},   {"99999999999", INT_MAX},
                                                            {"1.9", 1}, {"010", 10},   {"-99999999999", INT_MIN}};
    for (const auto& [text, expected] : cases) {
        CQSControl request;
        std::string escaped = text;
        if (!escaped.empty() && escaped[0] == '+') escaped.replace(0, 1, "%2B");
        ASSERT_TRUE(request.parse("n=" + escaped));
        EXPECT_EQ(request.getEnv<int>("n"), expected) << text;
    }
    EXPECT_EQ(CQSControl().getEnv<int>("missing"), 0);
}

TEST(Request, EscapesWithWrongDigitsDecodeTheSameOnEveryMachine) {
    EXPECT_EQ(CQSControl::x2c('f', 'F'), '\xff');
    EXPECT_EQ(CQSControl::x2c('z', 'z'), static_cast<char>(35 * 16 + 35));
    EXPECT_EQ(CQSControl::x2c('/', '@'), static_cast<char>(-1 * 16 + 16));
    EXPECT_EQ(CQSControl::x2c('\xff', '0'), static_cast<char>(-49 * 16));  // a byte above 0x7f is negative
}

}  // namespace
