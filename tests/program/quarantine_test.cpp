#include "tests/program/console_test.h"

using Strings = std::vector<std::string>;

namespace {

const std::string JSON_HEAD = "Content-type: application/json\n\n";
const std::string ITEMS =
    R"([{"id":"a1","path":"/srv/ä","size":1,"owner":2,"group":3,"ownerName":"anna","groupName":"","mode":4,"modified":5,"sha256":"ff","signature":"E",)"
    R"("type":"Virus","task":"17_1","when":6,"backup":false}])";

std::string errorHead(const std::string& status) {
    return "Content-type: application/json\nStatus: " + status + "\n\n";
}

class Quarantine : public ConsoleTest {
protected:
    Quarantine() {
        console.writeTemplate("quarantine.html", "quarantine __LOCALE__\n");
        service.on(M::GET, M::QUARANTINE, Answer::reply(1, {{"Items", ITEMS}, {"Total", "1"}}));
        service.on(M::GET, M::QUARANTINE_TRUST,
                   Answer::reply(1, {{"Trusted", R"([{"sha256":"ff","name":"/srv/b"}])"}}));
        for (const auto command : {M::QUARANTINE_ITEM, M::QUARANTINE_TRUST}) {
            service.on(M::START, command, Answer::reply(1));
            service.on(M::STOP, command, Answer::reply(1));
        }
    }
    CgiResponse ask(const CgiRequest& request) { return console.run(consoleProgram("quarantine.cgi"), request); }
    CgiResponse ask(const std::string& query) { return ask(CgiRequest::get(query)); }
    CgiResponse act(const std::string& body) { return ask(CgiRequest::post("CsrfToken=f00&" + body)); }
};

}  // namespace

TEST_F(Quarantine, ThePageAndItsListAreShownToWhoIsLoggedOn) {
    expectPage(ask(""), "quarantine en-US\n");
    EXPECT_EQ(ask("list=1").bytes, JSON_HEAD + R"({"items":)" + ITEMS + R"(,"total":1,)" +
                                       R"("trusted":[{"sha256":"ff","name":"/srv/b"}]})");
}

TEST_F(Quarantine, NobodyElseSeesOrDoesAnything) {
    service.on(M::SESSION, M::SESSION_CHECK, Answer::refuse(2));
    for (const CgiRequest& request :
         {CgiRequest::get(""), CgiRequest::get("list=1"), CgiRequest::post("action=delete&ids=a1&CsrfToken=f00")}) {
        expectLogOn(ask(request));
        EXPECT_EQ(sent(), Strings{"5/33"});
    }
}

TEST_F(Quarantine, TheServiceIsHandedTheTokenOfWhoeverWantsToChangeSomething) {
    service.on(M::SESSION, M::SESSION_CHECK, Answer::refuse(2));
    act("action=delete&ids=a1");
    sent();
    EXPECT_EQ(lastParam("RequestMethod"), "POST");
    EXPECT_EQ(lastParam("CsrfTokenHeader"), "f00");
}

TEST_F(Quarantine, NothingIsChangedByALink) {
    for (const char* query : {"action=delete&ids=a1", "action=restore&ids=a1&CsrfToken=f00", "action=x"}) {
        SCOPED_TRACE(query);
        EXPECT_EQ(ask(query).bytes, errorHead("405 Method Not Allowed") +
                                        R"({"error":"This request must be sent by a page of the console."})");
        EXPECT_EQ(sentByHandler(), Strings{});
    }
}

TEST_F(Quarantine, EachActionReachesTheServiceForEachFile) {
    struct Case {
        const char* action;
        const char* request;
        const char* parameter;
    };
    for (const Case& row : {Case{"restore", "3/105", "Id"}, Case{"delete", "4/105", "Id"}, Case{"trust", "3/106", "Id"},
                            Case{"distrust", "4/106", "Sha256"}}) {
        SCOPED_TRACE(row.action);
        const CgiResponse response = act(std::string("action=") + row.action + "&ids=a1,,b2");
        EXPECT_EQ(response.bytes, JSON_HEAD + R"({"results":[{"id":"a1","done":true,"message":""},)" +
                                      R"({"id":"b2","done":true,"message":""}]})");
        EXPECT_EQ(sentByHandler(), (Strings{row.request, row.request}));
        EXPECT_EQ(lastParam(row.parameter), "b2");
    }
}

TEST_F(Quarantine, AFileThatIsRefusedSaysWhyAndTheOthersAreDealtWith) {
    service.on(M::START, M::QUARANTINE_ITEM,
               {Answer::reply(2, {{"Message", "The \"folder\" is gone."}}), Answer::refuse(2), Answer::reply(1)});
    EXPECT_EQ(act("action=restore&ids=a,b,c").bytes,
              JSON_HEAD + R"({"results":[{"id":"a","done":false,"message":"The \"folder\" is gone."},)" +
                  R"({"id":"b","done":false,"message":"The service refused the request."},)" +
                  R"({"id":"c","done":true,"message":""}]})");
}

TEST_F(Quarantine, AServiceThatDoesNotAnswerIsToldAndNeverAskedTwice) {
    for (const auto& [name, answer] : brokenExchanges()) {
        SCOPED_TRACE(name);
        service.on(M::STOP, M::QUARANTINE_ITEM, answer);
        EXPECT_EQ(act("action=delete&ids=a").bytes,
                  JSON_HEAD + R"({"results":[{"id":"a","done":false,"message":")" + NOT_RESPONDING + R"("}]})");
        EXPECT_EQ(sentByHandler(), Strings{"4/105"});
        service.on(M::GET, M::QUARANTINE, answer);
        EXPECT_EQ(ask("list=1").bytes,
                  errorHead("503 Service Unavailable") + R"({"error":")" + NOT_RESPONDING + R"("})");
        sent();
    }
}

TEST_F(Quarantine, ARequestThatNamesNothingToDoIsRefused) {
    const std::string tooMany(1002, 'a');
    std::string many;
    for (const char c : tooMany) many.append(1, c).append(",");
    for (const std::string& body :
         {std::string("action=burn&ids=a"), std::string("action=delete"), std::string("action=delete&ids=,,"),
          std::string("list=1"), "action=delete&ids=" + many}) {
        SCOPED_TRACE(body.substr(0, 40));
        EXPECT_EQ(act(body).bytes,
                  errorHead("400 Bad Request") + R"({"error":"The request names nothing that can be done."})");
        EXPECT_EQ(sentByHandler(), Strings{});
    }
}

TEST_F(Quarantine, MarkUpIsRefusedBeforeAnythingHappens) {
    expectNothing(act("action=delete&ids=%3Cscript%3E"), 1);
    EXPECT_EQ(sent(), Strings{});
}
