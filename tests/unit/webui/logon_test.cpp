#include "webui/cgi/logon.h"

#include "norv/crypto.h"
#include "tests/unit/webui/page_test.h"
#include "webui/cgi/utils/cookies.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

using ::testing::ElementsAre;
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

class Session : public PageTest {
protected:
    Session() { console.writeTemplate("password_wrong.html", "wrong"); }

    std::string logOn(const std::string& form) {
        CQSControl request;
        EXPECT_TRUE(request.parse(form));
        return written([&] { PasswordLogon(request); });
    }

    ScriptedService service{console.socket()};
    const std::string refused = "Content-type: text/html\n\nwrong";
};

TEST_F(Session, TheServiceSeesWhatTheBrowserPresented) {
    service.on(IPCMessage::SESSION, IPCMessage::SESSION_CHECK, Answer::reply(1));
    setenv("HTTP_COOKIE", "hvssn=abc; CsrfToken=f00", 1);
    setenv("REMOTE_ADDR", "", 1);
    CQSControl request;
    ASSERT_TRUE(request.parse("CsrfToken=f01"));
    EXPECT_TRUE(SessionOperation(IPCMessage::SESSION_CHECK, request));
    const auto requests = service.takeRequests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].operation, IPCMessage::SESSION);
    const std::map<std::string, std::string> expected = {{"SessionID", "abc"},
                                                         {"RemoteAddr", ""},
                                                         {"RequestMethod", ""},
                                                         {"CsrfTokenHeader", "f01"},
                                                         {"CsrfTokenCookie", "f00"}};
    EXPECT_EQ(requests[0].params.size(), expected.size());
    for (const auto& [name, value] : expected) EXPECT_EQ(requests[0].value<std::string>(name), value) << name;
}

TEST_F(Session, OnlyAnAcceptedCheckIsValid) {
    setenv("HTTP_COOKIE", "hvssn=abc", 1);
    setenv("REMOTE_ADDR", "192.0.2.1", 1);
    for (const auto& answer : {Answer::reply(0), Answer::reply(2), Answer::reply(3), Answer::hangUp()}) {
        service.on(IPCMessage::SESSION, IPCMessage::SESSION_CHECK, answer);
        EXPECT_FALSE(SessionOperation(IPCMessage::SESSION_CHECK, CQSControl()));
    }
}

TEST_F(Session, WithoutACookieTheServiceIsNotAsked) {
    EXPECT_FALSE(SessionOperation(IPCMessage::SESSION_CHECK, CQSControl()));
    setenv("REMOTE_ADDR", "192.0.2.1", 1);
    EXPECT_FALSE(SessionOperation(IPCMessage::SESSION_CHECK, CQSControl()));
    setenv("HTTP_COOKIE", "hvssn=; CsrfToken=f00", 1);
    EXPECT_FALSE(SessionOperation(IPCMessage::SESSION_CHECK, CQSControl()));
    EXPECT_TRUE(service.takeRequests().empty());
    EXPECT_THAT(logged(1), ElementsAre("cannot find cookie or remote addr", "cannot find cookie or remote addr",
                                       "No session id found"));
}

TEST_F(Session, LoggingOnSetsBothCookiesAndGoesToTheMainPage) {
    service.on(IPCMessage::SESSION, IPCMessage::PASSWORD_LOGON, Answer::reply(1, {{"SessionID", "5e55"}}));
    setenv("REMOTE_ADDR", "192.0.2.1", 1);
    EXPECT_THAT(logOn("T1=" + std::string(32, 'p') + "&tfUserName=admin"),
                MatchesRegex("Content-type: text/html\nLocation: /NorvLinux/showpage.cgi\\?page=norv_main.html\n"
                             "Status: 303 See Other\nSet-Cookie: CsrfToken=[0-9a-f]{64}\nSet-Cookie: hvssn=5e55\n\n"));
    const auto requests = service.takeRequests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].value<std::string>("User"), "admin");
    EXPECT_EQ(requests[0].value<std::string>("RemoteAddr"), "192.0.2.1");
    std::string password;
    EXPECT_TRUE(dm_decryptString(requests[0].value<std::string>("Password"), password));
    EXPECT_EQ(password, std::string(32, 'p'));
}

TEST_F(Session, EveryFailedLogOnLooksTheSame) {
    EXPECT_EQ(logOn("T1=" + std::string(33, 'p')), refused);
    EXPECT_EQ(logOn("T1=p"), refused) << "no address";
    setenv("REMOTE_ADDR", "192.0.2.1", 1);
    setenv("KELDRA_KEY_FILE", "none", 1);
    EXPECT_EQ(logOn("T1=p"), refused);
    EXPECT_TRUE(service.takeRequests().empty());
    setenv("KELDRA_KEY_FILE", console.keyFile().c_str(), 1);
    for (const auto& answer : {Answer::reply(2, {{"SessionID", "5e55"}}), Answer::reply(1), Answer::hangUp()}) {
        service.on(IPCMessage::SESSION, IPCMessage::PASSWORD_LOGON, answer);
        EXPECT_EQ(logOn("T1=p"), refused);
    }
    EXPECT_THAT(logged(1), ::testing::IsSupersetOf({"Exceeds maximum length of a password", "Failed to get remote addr",
                                                    "encrypt_string() failed."}));
}

}  // namespace
