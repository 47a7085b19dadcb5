#include "tests/program/console_test.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using Strings = std::vector<std::string>;
using Params = std::map<std::string, std::string>;

namespace {

class Session : public ConsoleTest {
protected:
    CgiResponse visit(const std::optional<std::string>& cookies,
                      const std::optional<std::string>& address = "192.0.2.7") {
        return run({.query = "id=nowhere", .cookies = cookies, .remoteAddress = address});
    }
    Params lastParams() const {
        Params result;
        if (requests.empty()) return result;
        for (const auto& [name, parameter] : requests.back().params) result[name] = parameter.value;
        return result;
    }
};

}  // namespace

TEST_F(Session, TheServiceIsToldAllThatTheBrowserPresented) {
    run({.method = "POST", .body = "CsrfToken=b4%2B&id=nowhere", .cookies = "a=1; hvssn=abc; CsrfToken=f00"});
    EXPECT_EQ(sent(), (Strings{"0/1", "0/2", "5/33"}));
    EXPECT_EQ(lastParams(), (Params{{"SessionID", "abc"},
                                    {"RemoteAddr", "192.0.2.7"},
                                    {"RequestMethod", "POST"},
                                    {"CsrfTokenHeader", "b4+"},
                                    {"CsrfTokenCookie", "f00"}}));
}

TEST_F(Session, WhatAPageAsksByItselfIsNoUseOfTheSessionAndHasTheSameAnswer) {
    for (const char* query : {"id=update_progress&RequestID=1", "id=scan_progress_query&RequestID=1", "id=nowhere"}) {
        CgiRequest request = CgiRequest::get(query);
        const CgiResponse byPerson = run(request);
        EXPECT_EQ(sent().at(2), "5/33") << query;
        request.environment["HTTP_KELDRA_ASKED_BY"] = "page";
        EXPECT_EQ(run(request).bytes, byPerson.bytes) << query;
        EXPECT_EQ(sent().at(2), "5/113") << query;
    }
}

TEST_F(Session, CookiesAreFoundInWhateverHeaderABrowserSends) {
    struct Case {
        const char* header;
        const char* session;
        const char* token;
    };
    for (const Case& row :
         {Case{"CsrfToken=f00;   hvssn=abc", "abc", "f00"}, Case{";;=;hvssn=1; hvssn=%41;", "%41", ""},
          Case{"hvssn; hvssn=\"a=b \" ; CsrfToken", "\"a=b \" ", ""}}) {
        SCOPED_TRACE(row.header);
        expectPage(visit(row.header), "not supported\n");
        sent();
        EXPECT_EQ(lastParams()["SessionID"], row.session);
        EXPECT_EQ(lastParams()["CsrfTokenCookie"], row.token);
    }
}

TEST_F(Session, AVisitorWithoutASessionCookieReachesLogOnAndTheServiceIsNotAsked) {
    for (const char* header : {"", "hvssn=", "hvssn", "HVSSN=abc", "hvssn =abc", "\thvssn=abc", "x=hvssn=abc",
                               "hvssn=abc; hvssn=", "CsrfToken=f00"}) {
        SCOPED_TRACE(header);
        const CgiResponse response = visit(header);
        expectLogOn(response);
        EXPECT_THAT(complaints(response), ElementsAre("1 No session id found", "3 Authentication invalid"));
        EXPECT_EQ(sent(), (Strings{"0/1", "0/2"}));
    }
}

TEST_F(Session, ARequestWithoutCookiesOrAddressReachesLogOn) {
    for (const CgiResponse& response : {visit(std::nullopt), visit("hvssn=abc", std::nullopt)}) {
        expectLogOn(response);
        EXPECT_THAT(complaints(response),
                    ElementsAre("1 cannot find cookie or remote addr", "3 Authentication invalid"));
        EXPECT_TRUE(response.logged(5, "SessionOperation(check) failed."));
    }
    EXPECT_EQ(sent(), (Strings{"0/1", "0/2", "0/1", "0/2"}));
    expectPage(visit("hvssn=abc", ""), "not supported\n");
    sent();
    EXPECT_EQ(lastParams()["RemoteAddr"], "");
}

TEST_F(Session, OnlyTheServicesYesOpensTheConsole) {
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        service.on(M::SESSION, M::SESSION_CHECK, answer);
        const CgiResponse response = get("id=manual_scan");
        expectLogOn(response);
        EXPECT_TRUE(response.logged(5, "session operation failed"));
        EXPECT_THAT(complaints(response), Contains("3 Authentication invalid"));
        EXPECT_EQ(sent(), (Strings{"0/1", "0/2", "5/33"})) << "a request is never sent twice, and no handler runs";
    }
}

TEST_F(Session, WhatWasReadOfTheCookiesIsTraced) {
    const CgiResponse response = visit("a=1; hvssn=abc");
    EXPECT_THAT(response.logged(5), IsSupersetOf({"HTTP_COOKIE=[a=1; hvssn=abc], REMOTE_ADDR=[192.0.2.7]",
                                                  "Cookie: name=[a], value=[1]", "Cookie: name=[hvssn], value=[abc]"}));
}

TEST_F(Session, LoggingOffEndsTheSessionAndAlwaysReachesLogOn) {
    std::vector<std::pair<std::string, Answer>> answers = notAccepted();
    answers.emplace_back("accepted", Answer::reply(1));
    for (const auto& [name, answer] : answers) {
        SCOPED_TRACE(name);
        service.on(M::SESSION, M::SESSION_LOGOFF, answer);
        expectLogOn(post("id=logoff&CsrfToken=f00"), 0);
        EXPECT_EQ(sentByHandler(), Strings{"5/32"});
        EXPECT_EQ(lastParams(), (Params{{"SessionID", "5e55"},
                                        {"RemoteAddr", "192.0.2.7"},
                                        {"RequestMethod", "POST"},
                                        {"CsrfTokenHeader", "f00"},
                                        {"CsrfTokenCookie", "f00"}}));
    }
}
