#include "tests/program/console_test.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

namespace {

class StartUp : public ConsoleTest {};

/// A row of the site map.
struct Route {
    const char* request;
    bool posted;
    const char* page;  ///< the template shown, which here holds its own name
    Strings messages;  ///< what the handler asks the service
};

std::ostream& operator<<(std::ostream& out, const Route& route) { return out << route.request; }

class SiteMap : public ConsoleTest, public testing::WithParamInterface<Route> {
protected:
    SiteMap() {
        for (const char* name :
             {"ScanOptions/Manual.html", "ScanOptions/Real-time.html", "ScanOptions/Scheduled.html",
              "ScanOptions/HVDefaultExt.html", "ScanOptions/scan_progress2.html", "Update/Update_Scheduled.html",
              "Update/update_progress.html", "response/Response_success.html", "not_support.html", "error.html"}) {
            console.writeTemplate(name, name);
        }
        service.on(M::GET, M::MANUAL_SCAN_STATUS, Answer::reply(1, {{"Status", "3"}}));
    }
};

}  // namespace

TEST_P(SiteMap, EveryAddressReachesItsPageAndNoOther) {
    const Route& route = GetParam();
    const CgiResponse response = route.posted ? post(route.request) : get(route.request);
    expectPage(response, route.page);
    EXPECT_EQ(sentByHandler(), route.messages);
}

INSTANTIATE_TEST_SUITE_P(
    , SiteMap,
    testing::Values(
        Route{"id=realtime_scan", false, "ScanOptions/Real-time.html", {"0/3", "0/22"}},
        Route{"id=realtime_scan&mode=save", false, "ScanOptions/Real-time.html", {"0/3", "0/22"}},
        Route{"id=realtime_scan&mode=Save&bOverWrite=true", true, "response/Response_success.html", {"0/3", "1/3"}},
        Route{"id=manual_scan", false, "ScanOptions/Manual.html", {"0/4", "0/22"}},
        Route{"id=manual_scan&mode=scan", true, "ScanOptions/Manual.html", {"0/4", "0/22"}},
        Route{"id=manual_scan&mode=Save&bOverWrite=true", true, "response/Response_success.html", {"0/4", "1/4"}},
        Route{"id=manual_scan&mode=SaveAndScan&bOverWrite=true",
              true,
              "ScanOptions/Manual.html",
              {"0/4", "1/4", "0/4", "0/22"}},
        Route{"id=scan_progress_query&RequestID=1", false, "ScanOptions/scan_progress2.html", {"0/6"}},
        Route{"id=stop_scan&RequestID=1", true, "ScanOptions/scan_progress2.html", {"4/26", "0/6"}},
        Route{"id=scheduled_scan", false, "ScanOptions/Scheduled.html", {"0/5", "0/22"}},
        Route{"id=scheduled_scan&mode=Save&bOverWrite=true", true, "response/Response_success.html", {"0/5", "1/5"}},
        Route{"id=manual_update&RequestID=1", true, "error.html", {"3/24"}},
        Route{"id=scheduled_update", false, "Update/Update_Scheduled.html", {}},
        Route{"id=scheduled_update&mode=Save", true, "response/Response_success.html", {"0/23", "1/23"}},
        Route{"id=update_progress&RequestID=1", false, "Update/update_progress.html", {}},
        Route{"id=default_ext", false, "ScanOptions/HVDefaultExt.html", {}},
        Route{"id=Manual_scan", false, "not_support.html", {}}, Route{"id=xmanual_scan", false, "not_support.html", {}},
        Route{"id=manual_scan+", false, "not_support.html", {}}, Route{"id=", false, "not_support.html", {}},
        Route{"", false, "not_support.html", {}}, Route{"mode=Scan", false, "not_support.html", {}}));

TEST_F(StartUp, AGoodRequestIsTracedFromItsEntryAndComplainsOfNothing) {
    const CgiResponse response = get("id=nowhere");
    expectPage(response, "not supported\n");
    EXPECT_THAT(complaints(response), IsEmpty());
    ASSERT_FALSE(response.log.empty());
    const LogLine& first = response.log.front();
    EXPECT_EQ(first.message, "Enter");
    EXPECT_EQ(first.severity, 5);
    EXPECT_EQ(first.function, "int main(int, char**)");
    EXPECT_EQ(first.place.substr(0, first.place.find(':')), "webui/cgi/scanoption.cpp");
    EXPECT_EQ(first.program, "scanoption.cgi");
    EXPECT_EQ(response.process.errors, "");
}

TEST_F(StartUp, EveryTraceSaysWhereItStandsAndNoComplaintDoes) {
    service.on(M::GET, M::VIRUS_TYPES, Answer::refuse(2));
    for (const char* form : {"id=manual_scan&mode=Save", "id=realtime_scan&mode=Save", "id=scheduled_scan&mode=Save",
                             "id=scheduled_update", "id=default_ext", "id=manual_update", "id=logoff"}) {
        SCOPED_TRACE(form);
        const CgiResponse response = post(form);
        EXPECT_GT(response.log.size(), 10U);
        for (const LogLine& line : response.log) {
            const bool trace = line.severity == 5;
            EXPECT_EQ(line.place.rfind("webui/cgi/", 0), trace ? 0 : std::string::npos) << line;
            EXPECT_EQ(line.function.find('('), trace ? line.function.find('(', 1) : std::string::npos) << line;
        }
    }
}

TEST_F(StartUp, AMissingTemplateLeavesAnEmptyResponseAndALogLine) {
    std::filesystem::remove(console.var() / "../templates/not_support.html");
    const CgiResponse response = get("id=nowhere");
    expectNothing(response, 0);
    EXPECT_THAT(complaints(response), ElementsAre("2 Failed to load a page"));
}

TEST_F(StartUp, ADocumentThatCannotBeFetchedIsReportedAndNoHandlerRuns) {
    struct Case {
        M::CommandID command;
        Answer answer;
        std::string complaint;
    };
    std::vector<Case> cases;
    for (const M::CommandID command : {M::CONFIG_FILE_CHECK, M::CONFIG_FILE_STATE}) {
        cases.push_back({command, Answer::refuse(2), "1 CheckConfigFile retuned an error. result=2"});
        for (const auto& [name, answer] : brokenExchanges()) {
            cases.push_back({command, answer, "1 sendMessage failed"});
        }
    }
    for (const Case& broken : cases) {
        SCOPED_TRACE(broken.complaint + " to command " + std::to_string(broken.command));
        serve();
        service.on(M::GET, broken.command, broken.answer);
        const CgiResponse response = get("id=manual_scan");
        EXPECT_EQ(response.bytes, HTML_HEAD +
                                      "failure\nManual Scan\nUnable to read the configuration file.\n"
                                      "The configuration file may be corrupted.\n./scanoption.cgi?id=manual_scan\n");
        EXPECT_EQ(response.process.status, 1);
        EXPECT_THAT(complaints(response), testing::Contains(broken.complaint));
        const bool first = broken.command == M::CONFIG_FILE_CHECK;
        EXPECT_EQ(sent(), first ? (Strings{"0/1", "5/33"}) : (Strings{"0/1", "0/2", "5/33"}));
    }
}

TEST_F(StartUp, OnlyResultTwoOfTheDocumentCommandsCountsAsAFailure) {
    const std::map<std::string, std::string> served{{"Content", defaults.document}, {"LastModified", "7"}};
    console.writeTemplate("Update/Update_Scheduled.html", "sLastModifiedDate=0");
    for (const int32_t result : {0, 1, 3, -1}) {
        service.on(M::GET, M::CONFIG_FILE_CHECK, Answer::refuse(result));
        service.on(M::GET, M::CONFIG_FILE_STATE, Answer::reply(result, served));
        expectPage(get("id=scheduled_update"), "sLastModifiedDate=7");
    }
}

TEST_F(StartUp, AnEmptyDocumentStillServesPages) {
    service.on(M::GET, M::CONFIG_FILE_STATE, Answer::reply(1));
    expectPage(get("id=nowhere"), "not supported\n");
}

TEST_F(StartUp, TheErrorPageOfABrokenConfigurationLeadsBackToThePageAskedFor) {
    service.on(M::GET, M::CONFIG_FILE_CHECK, Answer::refuse(2));
    struct Case {
        const char* id;
        const char* header;
        const char* back;
    };
    for (const Case& row : {Case{"realtime_scan", "Real-time Scan", "realtime_scan"},
                            Case{"xmanual_scan_y", "Manual Scan", "manual_scan"},
                            Case{"manual_scan_realtime_scan", "Real-time Scan", "realtime_scan"},
                            Case{"scheduled_scan&mode=Save", "Scheduled Scan", "scheduled_scan"},
                            Case{"scheduled_update", "Scheduled Update", "scheduled_update"}}) {
        SCOPED_TRACE(row.id);
        const CgiResponse response = get(std::string("id=") + row.id);
        EXPECT_EQ(response.bytes, HTML_HEAD + "failure\n" + row.header +
                                      "\nUnable to read the configuration file.\nThe configuration file may be "
                                      "corrupted.\n./scanoption.cgi?id=" +
                                      row.back + "\n");
        EXPECT_EQ(response.process.status, 1);
        EXPECT_THAT(sentByHandler(), ElementsAre("no start"));
    }
    for (const char* id : {"scan_progress_query", "stop_scan", "manual_update", "update_progress", "default_ext",
                           "logoff", "nowhere", "", "Manual_Scan"}) {
        SCOPED_TRACE(id);
        const CgiResponse response = get(std::string("id=") + id);
        expectNothing(response, 1);
        EXPECT_TRUE(response.logged(5, "ENTER sType=" + std::string(id)));
    }
}

TEST_F(StartUp, ABrokenConfigurationDoesNotHideThatTheSessionRanOut) {
    service.on(M::GET, M::CONFIG_FILE_CHECK, Answer::refuse(2));
    service.on(M::SESSION, M::SESSION_CHECK, Answer::refuse(2));
    expectLogOn(get("id=manual_scan"));
}

TEST_F(StartUp, NothingIsSavedByAnAddressThatSomebodyWasMadeToFollow) {
    for (const char* query :
         {"id=manual_scan&mode=Save", "id=manual_scan&mode=SaveAndScan&bOverWrite=true", "id=default_ext&mode=Save",
          "id=realtime_scan&mode=Save&bOverWrite=true", "id=scheduled_update&mode=Save", "mode=SaveAndScan"}) {
        SCOPED_TRACE(query);
        const CgiResponse response = get(query);
        expectLogOn(response);
        EXPECT_THAT(sentByHandler(), IsEmpty());
    }
}

TEST_F(StartUp, WithoutAServiceEveryVisitorIsSentToLogOn) {
    std::filesystem::remove(console.socket());
    const CgiResponse response = get("id=manual_scan");
    expectLogOn(response);
    EXPECT_TRUE(response.logged(1, "sendMessage failed"));
    EXPECT_TRUE(response.logged(3, "Authentication invalid"));
}

TEST_F(StartUp, ASlowAnswerIsWaitedForButNotForEver) {
    service.on(M::SESSION, M::SESSION_CHECK, Answer::reply(1).after(std::chrono::milliseconds(300)));
    expectPage(get("id=nowhere"), "not supported\n");
    service.on(M::SESSION, M::SESSION_CHECK, Answer::silence());
    const CgiResponse response = get("id=nowhere");
    expectLogOn(response);
    EXPECT_GE(response.process.elapsed, std::chrono::milliseconds(9500));
    EXPECT_LE(response.process.elapsed, std::chrono::milliseconds(20000));
}

TEST_F(StartUp, TheLogHoldsWhatItsLevelAsksFor) {
    struct Case {
        const char* configured;  ///< in the document; null: not there
        const char* overriding;  ///< in the environment; null: not there
        std::vector<int> severities;
    };
    const std::vector<Case> cases{{nullptr, nullptr, {1}},      {"0", nullptr, {}},    {"2", nullptr, {1, 2}},
                                  {"5", nullptr, {1, 2, 3, 5}}, {"5", "2", {1, 2}},    {"5", "loud", {}},
                                  {"two", nullptr, {1}},        {"1", "3x", {1, 2, 3}}};
    for (const Case& row : cases) {
        SCOPED_TRACE(testing::Message() << (row.configured ? row.configured : "-") << " "
                                        << (row.overriding ? row.overriding : "-"));
        const std::string level = row.configured ? row.configured : "";
        const std::string group =
            "<Group Type=\"Configuration\"><P Name=\"UserDebugLevel\" Value=\"" + level + "\"/></Group>";
        defaults.document = document(row.configured ? group : "");
        serve();
        // A request without a method and without a session complains at every severity.
        CgiRequest request{.method = std::nullopt, .cookies = std::nullopt};
        auto& override = request.environment["KELDRA_CONFIGURATION_USERDEBUGLEVEL"];
        if (row.overriding) override = row.overriding;
        const CgiResponse response = console.run(consoleProgram("scanoption.cgi"), request);
        std::set<int> seen;
        for (const LogLine& line : response.log) seen.insert(line.severity);
        EXPECT_THAT(seen, testing::ElementsAreArray(row.severities));
    }
}

TEST_F(StartUp, ThePageComesInTheLanguageThatTheVisitorWants) {
    for (const char* language : {"en-US", "de-DE", "ja-JP"}) {
        console.write(std::string("templates/") + language + "/string.mui", std::string("%[K]%=text ") + language);
    }
    console.write("templates/secret/other.txt", "no string table");
    console.writeTemplate("not_support.html", "__LOCALE__|%[K]%|%[L]%|%[K");
    using Environment = std::map<std::string, std::optional<std::string>>;
    struct Case {
        Environment environment;
        const char* language;
    };
    const auto wish = [](const char* header) {
        return Environment{{"KELDRA_LOCALE", std::nullopt}, {"HTTP_ACCEPT_LANGUAGE", header}};
    };
    for (const Case& row : {Case{{{"KELDRA_LOCALE", "de-DE"}, {"HTTP_ACCEPT_LANGUAGE", "ja"}}, "de-DE"},
                            Case{{{"KELDRA_LOCALE", "../de-DE"}}, "en-US"}, Case{wish("de;q=0.2,ja-JP;q=0.9"), "ja-JP"},
                            Case{wish("../de-DE"), "en-US"}, Case{wish("secret"), "en-US"}}) {
        SCOPED_TRACE(testing::PrintToString(row.environment));
        const std::string language = row.language;
        expectPage(run({.environment = row.environment}), language + "|text " + language + "|%[L]%|%[K");
    }
}
