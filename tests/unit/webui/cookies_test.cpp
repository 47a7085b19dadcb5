#include "webui/cgi/utils/cookies.h"

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

using ::testing::MatchesRegex;

namespace {

TEST(Cookies, AreReadAsBrowsersSendThem) {
    using Cookies = std::map<std::string, std::string>;
    const std::vector<std::pair<std::string, Cookies>> cases = {
        {"", {}},
        {"a=1; hvssn=abc; CsrfToken=f00", {{"a", "1"}, {"hvssn", "abc"}, {"CsrfToken", "f00"}}},
        {"a=1;a=2", {{"a", "2"}}},
        {"flag; ;=v;  b=\"x y\" ", {{"", "v"}, {"b", "\"x y\" "}}},
        {"a=b=c;\td=", {{"a", "b=c"}, {"\td", ""}}},
        {" =", {{"", ""}}},
    };
    for (const auto& [header, expected] : cases) EXPECT_EQ(parseCookie(header), expected) << header;
}

TEST(Cookies, TokensAreRandomHexadecimal) {
    EXPECT_THAT(genRandomHex(32), MatchesRegex("[0-9a-f]{64}"));
    EXPECT_NE(genRandomHex(32), genRandomHex(32));
    EXPECT_EQ(genRandomHex(0), "");
}

}  // namespace
