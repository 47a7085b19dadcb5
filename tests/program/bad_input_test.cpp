#include "norv/au_config.h"
#include "norv/scan_config.h"
#include "tests/harness/message_catalogue.h"
#include "tests/program/console_test.h"
#include "tests/program/scan_settings.h"

using testing::ElementsAre;
using testing::HasSubstr;
using Strings = std::vector<std::string>;
using namespace std::string_literals;

namespace {

/// Requests made by somebody who means harm, or by a broken client.
class BadInput : public ConsoleTest {
protected:
    BadInput() {
        console.writeTemplate("ScanOptions/Scheduled.html", "ScheduledTime=\"\"\n" + SCAN_VARIABLES);
        console.writeTemplate("ScanOptions/Manual.html", SCAN_VARIABLES);
        console.writeTemplate("Update/update_progress.html", "progress of an update");
    }
    void expectRefused(const CgiResponse& response) {
        expectNothing(response, 1);
        EXPECT_TRUE(response.logged(2, "Parsing query string failed"));
        EXPECT_EQ(sent(), (Strings{"0/1", "0/2"}));
    }
};

}  // namespace

TEST_F(BadInput, NoConsoleLanguageOpensAHoleInTheFilter) {
    console.write("templates/tr-TR/string.mui", "");
    for (const char* tag : {"<SCRIPT", "<IMG", "<IFRAME", "<LINK", "<VIDEO", "<INPUT", "<BASE", "<DIV"}) {
        SCOPED_TRACE(tag);
        CgiRequest request = CgiRequest::get("x="s + tag);
        request.environment = {
            {"KELDRA_LOCALE", "tr-TR"}, {"LANG", "tr_TR.UTF-8"}, {"LC_ALL", "tr_TR.UTF-8"}, {"LANGUAGE", "tr"}};
        expectRefused(run(request));
    }
}

TEST_F(BadInput, NumbersKeepTheirFormInEveryLanguage) {
    console.write("templates/de-DE/string.mui", "");
    console.writeTemplate("Update/Update_Scheduled.html", "sLastModifiedDate=0");
    CgiRequest request = CgiRequest::get("id=scheduled_update");
    request.environment = {{"KELDRA_LOCALE", "de-DE"}, {"LC_ALL", "de_DE.UTF-8"}};
    expectPage(run(request), "sLastModifiedDate=1700000000");
}

TEST_F(BadInput, TextsAreTranslatedAndTextsOfUsersAreNot) {
    console.write("templates/de-DE/string.mui", "");
    console.write(
        "locale/de_DE/LC_MESSAGES/messages.mo",
        messageCatalogue({{SAVED, "Gespeichert."}, {"Manual Scan", "Manuell"}, {"Update not completed.", "Nein:"}}));
    const auto german = [](CgiRequest request) {
        request.environment["KELDRA_LOCALE"] = "de-DE";
        return request;
    };
    expectPage(run(german(CgiRequest::post("id=manual_scan&mode=Save&bOverWrite=true"))),
               "success\nManuell\nGespeichert.\n\n./scanoption.cgi?id=manual_scan\n");
    console.writeTemplate("Update/update_fail.html", "__FAIL_TITLE__ __REASON__");
    console.write("var/progress_1.txt", "it broke");
    expectPage(run(german(CgiRequest::get("id=update_progress&RequestID=1"))), "Nein: it broke");
}

TEST_F(BadInput, APathAsIdentifierReachesNoOtherFile) {
    console.write("progress.txt", "5");
    console.write("secret.txt", "5");
    for (const char* name : {"../../secret", "/../../secret", "..%2f..%2fsecret", "%2e%2e/%2e%2e/secret",
                             "x/../../secret", "/etc/passwd%00", "../../secret.txt%00"}) {
        SCOPED_TRACE(name);
        expectPage(get("id=update_progress&RequestID="s + name), "progress of an update");
    }
}

TEST_F(BadInput, ALogRecordStaysOneLineWhateverIsLogged) {
    const CgiResponse response =
        run({.query = "id=nowhere&x=%25s%25n+a%0A2026-01-01T00:00:00.000Z+scanoption.cgi[1]+1+forged%0D%1B[31m%7F%C0",
             .cookies = "hvssn=a\nb"});
    expectPage(response, "not supported\n");
    EXPECT_THAT(complaints(response), testing::IsEmpty());
    EXPECT_TRUE(response.logged(
        5, "name=x   value=%s%n a\\n2026-01-01T00:00:00.000Z scanoption.cgi[1] 1 forged\\r\\x1b[31m\\x7f\\xc0"));
    EXPECT_TRUE(response.logged(5, "Cookie: name=[hvssn], value=[a\\nb]"));
}

TEST_F(BadInput, AListOfTenThousandExtensionsIsKeptWhole) {
    std::string list;
    for (int i = 0; i < 10000; ++i) list += "e" + std::to_string(i) + ";";
    expectPage(post("id=manual_scan&mode=Save&bOverWrite=true&E1=ON23&SelectedExt=" + list),
               "success\nManual Scan\n" + SAVED + "\n\n./scanoption.cgi?id=manual_scan\n");
    sent();
    EXPECT_EQ(lastRecord<NORVManualScanConfig>("ManualScanConfig").includeExtList, list);
    std::ostringstream stored;
    stored << lastRecord<NORVManualScanConfig>("ManualScanConfig");
    defaults.manualScan = stored.str();
    serve();
    expectPage(get("id=manual_scan"), ShownScanSettings{.files = "1", .extensions = list}.text());
}

TEST_F(BadInput, AFormLargerThanAFrameFailsWithoutHarm) {
    CgiRequest request = CgiRequest::post("id=manual_scan&mode=Save&bOverWrite=true&E1=ON23&SelectedExt=" +
                                          std::string(17 * 1024 * 1024, 'x'));
    request.environment["KELDRA_CONFIGURATION_USERDEBUGLEVEL"] = "2";
    expectPage(run(request), "failure\nManual Scan\nUnable to apply the new manual scan settings.\n" + NOT_RESPONDING +
                                 "\n./scanoption.cgi?id=manual_scan\n");
    EXPECT_EQ(sentByHandler(), Strings{"0/4"});
}

TEST_F(BadInput, TextOutsideOfUnicodeDoesNotSpoilTheStoredSettings) {
    const CgiResponse response =
        post("id=manual_scan&mode=Save&bOverWrite=true&E1=ON23&SelectedExt=%FF%C0%80%01%22%5C&x=%80");
    EXPECT_EQ(response.process.status, 0);
    sent();
    if (requests.back().operation != M::SET) return;  // refused is fine, stored in a form that cannot be read is not
    EXPECT_FALSE(lastRecord<NORVManualScanConfig>("ManualScanConfig").includeExtList.empty());
}

TEST_F(BadInput, ATextCannotEndTheAssignmentThatItStandsIn) {
    expectPage(post("id=scheduled_scan&mode=Save&E1=ON23&SelectedExt=%22;alert(1)//%5C&EnableKeenAct=1"),
               "ScheduledTime=\"\"\n" + ShownScanSettings{.files = "1", .extensions = "\\\";alert(1)//\\\\"}.text());
    expectPage(post("id=scheduled_scan&mode=Save&E1=ON23&SelectedExt=exe%00com&EnableKeenAct=1"),
               "ScheduledTime=\"\"\n" + ShownScanSettings{.files = "1", .extensions = "exe\0com"s}.text());
}

TEST_F(BadInput, AnActionListCannotCarryMarkUpIntoTheHiddenFields) {
    const CgiResponse response =
        post("id=scheduled_scan&mode=Save&CustAction=Virus\"+onfocus=\"x-1-1,Universe-1\"-1,Trojan-1-2%0A,Joke-3-3");
    EXPECT_THAT(response.body, HasSubstr("value=\"Universe-5-4,Virus-5-4,Trojan-4-1,Joke-3-3\">"));
    const CgiResponse universal = post("id=scheduled_scan&mode=Save&EnableUniAct=1&CustAction=Universe-1\"+x=\"-1");
    EXPECT_THAT(universal.body, HasSubstr("value=\"Universe-1-1,Virus-5-4,Trojan-4-1,Joke-4-1\">"));
}

TEST_F(BadInput, HeadersHoldNothingThatABrowserSent) {
    const CgiResponse response = run({.method = "GET",
                                      .query = "id=logoff&Location=%0D%0AX-Evil:1&CsrfToken=%0AX-Evil:2",
                                      .cookies = "hvssn=a\r\nX-Evil: 3"});
    expectLogOn(response, 0);
}
