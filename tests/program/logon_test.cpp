#include "norv/crypto.h"
#include "tests/program/console_test.h"

#include <cstdlib>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using Strings = std::vector<std::string>;

namespace {

class LogOn : public ConsoleTest {
protected:
    LogOn() {
        setenv("KELDRA_KEY_FILE", console.keyFile().c_str(), 1);
        console.writeTemplate("password_wrong.html", "wrong\n");
        service.on(M::SESSION, M::PASSWORD_LOGON, Answer::reply(1, {{"SessionID", "5e551011"}}));
    }
    CgiResponse logOn(CgiRequest request) {
        // A browser that logs on has no cookies yet.
        request.cookies.reset();
        return console.run(consoleProgram("logon.cgi"), request);
    }
    CgiResponse logOn(const std::string& form) { return logOn(CgiRequest::post(form)); }
    /// The password in the last request, as the service reads it.
    std::string sentPassword() {
        std::string text;
        sent();
        EXPECT_TRUE(dm_decryptString(lastParam("Password"), text));
        return text;
    }
};

}  // namespace

TEST_F(LogOn, TheRightPasswordOpensTheConsole) {
    const CgiResponse response = logOn("T1=s%C3%A9cret+1&tfUserName=admin");
    EXPECT_THAT(response.head,
                ElementsAre("Content-type: text/html", "Location: /NorvLinux/showpage.cgi?page=norv_main.html",
                            "Status: 303 See Other", MatchesRegex("Set-Cookie: CsrfToken=[0-9a-f]{64}"),
                            "Set-Cookie: hvssn=5e551011"));
    EXPECT_EQ(response.body, "");
    EXPECT_EQ(response.bytes.substr(response.bytes.size() - 2), "\n\n");
    EXPECT_EQ(response.process.status, 0);
    EXPECT_THAT(complaints(response), IsEmpty());
    EXPECT_EQ(sentPassword(),
              "s\xc3\xa9"
              "cret 1");
    EXPECT_EQ(lastParam("User"), "admin");
    EXPECT_EQ(lastParam("RemoteAddr"), "192.0.2.7");
    EXPECT_EQ(requests.back().params.size(), 3U);
    EXPECT_EQ(requests.back().operation, M::SESSION);
    EXPECT_EQ(requests.back().commandID, M::PASSWORD_LOGON);
}

TEST_F(LogOn, EverySessionGetsATokenOfItsOwnAndNoPasswordTravelsTheSameTwice) {
    const CgiResponse first = logOn("T1=secret");
    sent();
    const std::string password = lastParam("Password");
    const CgiResponse second = logOn("T1=secret");
    sent();
    ASSERT_EQ(first.head.size(), 5U);
    ASSERT_EQ(second.head.size(), 5U);
    EXPECT_NE(first.head[3], second.head[3]);
    EXPECT_NE(password, lastParam("Password"));
}

TEST_F(LogOn, WhateverTheServiceSaysButYesIsAWrongPassword) {
    std::vector<std::pair<std::string, Answer>> answers = notAccepted();
    answers.emplace_back("no session", Answer::reply(1));
    for (const auto& [name, answer] : answers) {
        SCOPED_TRACE(name);
        service.on(M::SESSION, M::PASSWORD_LOGON, answer);
        expectPage(logOn("T1=secret"), "wrong\n");
    }
}

TEST_F(LogOn, OnlyAWrongPasswordIsCalledWrong) {
    console.writeTemplate("password_wrong.html", "__LOGON_FAILURE__\n");
    const std::string wrong =
        "The user name or the password is wrong. After several failed attempts there is a short wait.\n";
    service.on(M::SESSION, M::PASSWORD_LOGON, Answer::refuse(2));
    expectPage(logOn("T1=secret"), wrong);
    expectPage(logOn("T1=" + std::string(33, 'p')), wrong);
    service.on(M::SESSION, M::PASSWORD_LOGON, Answer::reply(2, {{"Message", "The disk is full & <slow>"}}));
    expectPage(logOn("T1=secret"), "Could not log you on: The disk is full &amp; &lt;slow>\n");
    service.on(M::SESSION, M::PASSWORD_LOGON, Answer::hangUp());
    expectPage(logOn("T1=secret"),
               "Could not log you on: The service does not answer. Your password was not checked.\n");
}

TEST_F(LogOn, PasswordsOfUpToThirtyTwoCharactersAreTried) {
    for (const std::size_t length : {0U, 13U, 14U, 32U}) {
        SCOPED_TRACE(length);
        EXPECT_EQ(logOn("T1=" + std::string(length, 'p')).head.size(), 5U);
        EXPECT_EQ(sentPassword(), std::string(length, 'p'));
    }
    std::string encoded = "T1=";
    for (int i = 0; i < 32; ++i) encoded += "%41";
    EXPECT_EQ(logOn(encoded).head.size(), 5U);
    sent();
    const CgiResponse response = logOn("T1=" + std::string(33, 'p'));
    expectPage(response, "wrong\n");
    EXPECT_THAT(complaints(response), ElementsAre("1 Exceeds maximum length of a password"));
    EXPECT_THAT(sent(), testing::Not(Contains("5/31")));
}

TEST_F(LogOn, WithoutAnAddressOrAKeyNothingIsSent) {
    CgiRequest request = CgiRequest::post("T1=secret");
    request.remoteAddress.reset();
    const CgiResponse lost = logOn(request);
    expectPage(lost, "wrong\n");
    EXPECT_THAT(complaints(lost), ElementsAre("1 Failed to get remote addr"));
    console.write("console.key", std::string(63, '7') + "g");
    const CgiResponse response = logOn("T1=secret");
    expectPage(response, "wrong\n");
    EXPECT_THAT(complaints(response), Contains("1 encrypt_string() failed."));
    EXPECT_THAT(sent(), testing::Not(Contains("5/31")));
}

TEST_F(LogOn, AnAddressBarCannotCarryAPassword) {
    for (const std::optional<std::string>& method :
         std::vector<std::optional<std::string>>{"GET", "HEAD", std::nullopt}) {
        expectLogOn(logOn({.method = method, .query = "T1=secret", .body = "T1=secret"}));
    }
    EXPECT_THAT(sent(), testing::Not(Contains("5/31")));
}

TEST_F(LogOn, MarkUpInAFieldIsRefused) {
    const CgiResponse response = logOn("T1=secret&tfUserName=%3Cscript%3E");
    expectNothing(response, 1);
    EXPECT_THAT(complaints(response), ElementsAre("2 Parsing query string failed"));
}
