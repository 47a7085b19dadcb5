#include "norv/json_value.h"
#include "tests/harness/scripted_service.h"
#include "tests/harness/temp_dir.h"
#include "tests/service/service_test.h"

#include "norv/json_value.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iomanip>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

namespace {

using enum IPCMessage::CommandID;

/// The harmless file that every scanner takes for a virus, put together here so that no scanner takes this source for
/// it.
std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

class ControlTest : public ServiceTest {
protected:
    ControlTest() {
        writeFile(service_.file("samples") / "clean.txt", "nothing\n");
        writeFile(service_.file("samples") / "bad" / "eicar.com", testFile());
    }
};

TEST_F(ControlTest, AScanTellsCleanFromFoundFromFailedByItsStatus) {
    ASSERT_TRUE(service_.start());
    const ProcessResult nothing = service_.control({"scan", service_.file("samples") / "clean.txt"});
    EXPECT_EQ(nothing.status, 2) << "with nothing but the signature for trying out";
    EXPECT_NE(nothing.errors.find("no virus signatures"), std::string::npos);
    const ProcessResult found = service_.control({"scan", service_.file("samples")});
    EXPECT_EQ(found.status, 1);
    EXPECT_NE(found.output.find("eicar.com"), std::string::npos) << found.output;
    EXPECT_TRUE(std::filesystem::exists(service_.file("samples") / "bad" / "eicar.com")) << "only reported";
    EXPECT_EQ(service_.control({"scan", service_.file("samples") / "missing"}).status, 2);
    service_.stop();
    const ProcessResult down = service_.control({"scan", service_.file("samples")});
    EXPECT_EQ(down.status, 2);
    EXPECT_NE(down.errors.find("does not answer"), std::string::npos) << down.errors;
}

TEST_F(ControlTest, AScanTakesTheWorkersThatWereAskedForAndNoMoreThanThereMayBe) {
    ScriptedService scripted(service_.socket());
    service_.control({"scan", "--workers", "3", "/srv"});
    const std::vector<IPCMessage> asked = scripted.takeRequests();
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].value<int>("Workers"), 3);
    EXPECT_EQ(service_.control({"scan", "--workers", "33", "/srv"}).status, 2);
    EXPECT_TRUE(scripted.takeRequests().empty());
}

TEST_F(ControlTest, AFileNameCannotDriveTheTerminal) {
    writeFile(service_.file("samples") / "a\x1b[2J\n.com", testFile());
    ASSERT_TRUE(service_.start());
    const ProcessResult found = service_.control({"scan", service_.file("samples")});
    EXPECT_EQ(found.output.find('\x1b'), std::string::npos);
    EXPECT_NE(found.output.find("\\x1b[2J\\n"), std::string::npos) << found.output;
}

TEST_F(ControlTest, AnInterruptedPasswordPromptLeavesATerminalThatShowsWhatIsTyped) {
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        execl(BINARY_DIR "/service/keldractl", "keldractl", "passwd", "--state", "/", nullptr);
        _exit(127);
    }
    termios state{};
    const auto shows = [&] { return tcgetattr(terminal, &state) == 0 && (state.c_lflag & ECHO) != 0; };
    for (int i = 0; i < 500 && shows(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(shows());
    const int still = open(ptsname(terminal), O_RDWR | O_NOCTTY);  // else it goes with the program
    EXPECT_EQ(write(terminal, "\x03", 1), 1);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT);
    EXPECT_TRUE(shows());
    close(still);
    close(terminal);
}

TEST_F(ControlTest, FindsWithTheLongestNamesAreAllTold) {
    // Six bytes for each of these in the reply: more than one message could carry.
    std::filesystem::path folder = service_.file("samples") / "deep";
    for (int level = 0; level < 15; ++level) folder /= std::string(250, '\x01');
    constexpr int FILES = 720;
    for (int i = 0; i < FILES; ++i) writeFile(folder / std::to_string(i), testFile());
    ASSERT_TRUE(service_.start());
    const std::string found = service_.control({"scan", service_.file("samples") / "deep"}).output;
    EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), FILES + 1);
}

TEST_F(ControlTest, AFindIsPutAwayListedAndGivenBack) {
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(ask(IPCMessage::SET, MANUAL_SCAN_CONFIG, "ManualScanConfig",
                  R"({"NORVManualScanConfig":{"universeAction":"2-2"}})")
                  .result,
              1);
    const auto victim = service_.file("samples") / "bad" / "eicar.com";
    ASSERT_EQ(service_.control({"scan", "--act", victim}).status, 1);
    ASSERT_FALSE(std::filesystem::exists(victim));
    const ProcessResult list = service_.control({"quarantine", "list"});
    ASSERT_EQ(list.status, 0);
    const std::string id = list.output.substr(0, list.output.find(' '));
    ASSERT_EQ(id.size(), 32U) << list.output;
    const ProcessResult shown = service_.control({"quarantine", "show", id});
    EXPECT_NE(shown.output.find(victim.string()), std::string::npos) << shown.output;
    EXPECT_EQ(service_.control({"quarantine", "trust", id}).status, 0);
    EXPECT_EQ(service_.control({"quarantine", "restore", id}).status, 0);
    EXPECT_EQ(readFile(victim), testFile());
    EXPECT_NE(service_.control({"scan", victim}).status, 1) << "trusted by its content";
    EXPECT_EQ(service_.control({"quarantine", "delete", "no such id"}).status, 2);
}

TEST_F(ControlTest, AQuarantineOfManyFilesIsListedWhollyPageByPage) {
    constexpr int ITEMS = 2345;
    const std::filesystem::path folder = service_.file("state") / "quarantine";
    for (int i = 0; i < ITEMS; ++i) {
        std::ostringstream id;
        id << std::setw(32) << std::setfill('0') << (i * 7919) % ITEMS;
        writeFile(folder / (id.str() + ".data"), "x");
        writeFile(folder / (id.str() + ".json"), R"({"id":")" + id.str() + R"(","phase":"kept","path":"/srv/)" +
                                                     std::to_string(i) + R"(","when":)" + std::to_string(i) + "}\n");
    }
    ASSERT_TRUE(service_.start());
    const IPCMessage page = ask(IPCMessage::GET, QUARANTINE, "From", "2000");
    EXPECT_EQ(page.value<int>("Total"), ITEMS);
    EXPECT_EQ(page.value<std::string>("Items").find("/srv/345\""), std::string::npos);
    EXPECT_NE(page.value<std::string>("Items").find("/srv/344\""), std::string::npos);
    std::istringstream lines(service_.control({"quarantine", "list"}).output);
    int left = ITEMS;
    for (std::string line; std::getline(lines, line);) EXPECT_TRUE(line.ends_with("/srv/" + std::to_string(--left)));
    EXPECT_EQ(left, 0);
}

TEST_F(ControlTest, TheConsolesScanRunsToItsEndAndStaysReadable) {
    ASSERT_TRUE(service_.start());
    const IPCMessage started = ask(IPCMessage::START, MANUAL_SCAN);
    ASSERT_EQ(started.result, 1);
    const std::string id = started.value<std::string>("RequestID");
    EXPECT_EQ(id.find_first_not_of("0123456789_"), std::string::npos) << id;
    IPCMessage status;
    for (int i = 0; i < 200 && status.value<int>("Status") != 3; ++i) {
        status = ask(IPCMessage::GET, MANUAL_SCAN_STATUS, "RequestID", id);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(status.value<int>("Status"), 3);
    EXPECT_EQ(status.value<int>("Total"), 2);
    EXPECT_EQ(status.value<int>("Scanned"), 2);
    EXPECT_EQ(status.value<int>("VirusFound"), 1);
    service_.crash();
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(ask(IPCMessage::GET, MANUAL_SCAN_STATUS, "RequestID", id).value<int>("VirusFound"), 1);
}

TEST_F(ControlTest, StatusTellsWhatIsWrong) {
    service_.arguments.clear();
    writeFile(service_.file("config.xml"), "<broken");
    ASSERT_TRUE(service_.start());
    const ProcessResult status = service_.control({"status"});
    EXPECT_EQ(status.status, 2) << "not protected";
    EXPECT_EQ(status.output.find("This server is NOT protected:\n  !! There are no virus signatures"), 0U)
        << status.output;
    EXPECT_NE(status.output.find("cannot be used"), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("Signatures:      none"), std::string::npos) << status.output;
    service_.stop();
    EXPECT_EQ(service_.control({"status"}).status, 3) << "nobody knows";
    EXPECT_EQ(service_.control({"status", "--bogus"}).status, 3);
    const ProcessResult unknown = service_.control({"quarantine", "bogus"});
    EXPECT_EQ(unknown.errors, "keldractl: unknown command \"bogus\"; keldractl --help lists them\n");
}

TEST_F(ControlTest, AFreshServerSaysThatItIsNotProtectedAndWhatHappenedStandsInTheJournal) {
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(service_.control({"scan", service_.file("samples")}).status, 1);
    const ProcessResult status = service_.control({"status", "--json"});
    EXPECT_EQ(status.status, 2);
    const JsonDocument told = parseJson(status.output);
    EXPECT_EQ(textOf(told, "verdict"), "unprotected");
    ASSERT_TRUE(told.HasMember("reasons") && told["reasons"].IsArray() && !told["reasons"].Empty());
    EXPECT_EQ(textOf(told["reasons"][0], "reason"), "no_signatures") << "the shipped ones are for trying out";
    EXPECT_EQ(textOf(told["last_scans"][0], "outcome"), "completed");
    EXPECT_EQ(numberOf(told["last_scans"][0], "found"), 1);
    const ProcessResult events = service_.control({"events", "--kind", "find", "--csv"});
    EXPECT_NE(events.output.find(",find,alert,path,"), std::string::npos) << events.output;
    EXPECT_EQ(service_.control({"events", "--kind", "nonsense"}).status, 2);
    const IPCMessage days = get(DAILY_FIGURES);
    EXPECT_TRUE(days.value<std::string>("Figures").ends_with(R"("scanned":2,"found":1,"failed":0}])"))
        << days.value<std::string>("Figures");
    EXPECT_NE(service_.control({"history"}).output.find("path  completed  2 scanned, 1 infected"), std::string::npos);
}

TEST_F(ControlTest, AFindThatWasLeftIsToldUntilItIsGone) {
    const auto victim = service_.file("samples") / "left";
    writeFile(victim, "left behind");
    writeFile(service_.file("own") / "own.ndb", "Win.Trojan.Own:0:*:6c65667420626568696e64\n");
    service_.arguments.insert(service_.arguments.end(), {"--signatures", service_.file("own")});
    ASSERT_TRUE(service_.start());
    // Well before the next look that is taken without a reason.
    const auto becomes = [this](long untreated) {
        IPCMessage status;
        for (int i = 0; i < 50; ++i) {
            status = get(SERVICE_STATUS);
            if (status.value<long>("Untreated") == untreated) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        EXPECT_EQ(status.value<long>("Untreated"), untreated);
        EXPECT_EQ(status.value<std::string>("Reasons").find("untreated") != std::string::npos, untreated > 0);
        EXPECT_EQ(status.value<std::string>("UntreatedScan").empty(), untreated == 0);
    };
    EXPECT_EQ(service_.control({"scan", victim}).status, 1);
    becomes(1);
    std::filesystem::remove(victim);
    service_.control({"scan", service_.file("samples") / "clean.txt"});
    becomes(0);
}

TEST_F(ControlTest, SettingsAreReadChangedAndCarriedFromOneServerToAnother) {
    ASSERT_TRUE(service_.start());
    const std::string before = service_.control({"settings", "export"}).output;
    EXPECT_EQ(service_.control({"settings", "set", "manual_scan.scan_workers", "3"}).status, 0);
    EXPECT_EQ(service_.control({"settings", "set", "manual_scan.exclude_patterns", "7"}).status, 0);
    EXPECT_EQ(service_.control({"settings", "set", "limits.scheduled_from", "22:00"}).status, 0);
    EXPECT_EQ(service_.control({"settings", "set", "limits.scheduled_until", "noon"}).status, 2);
    EXPECT_EQ(service_.control({"settings", "get", "manual_scan.scan_workers"}).output, "3\n");
    EXPECT_EQ(service_.control({"settings", "get", "manual_scan.exclude_patterns"}).output, "7\n");
    for (const auto& [name, value] :
         {std::pair{"manual_scan.bogus", "1"}, {"bogus", "1"}, {"manual_scan.scan_workers", "x"}})
        EXPECT_EQ(service_.control({"settings", "set", name, value}).status, 2) << name;
    EXPECT_EQ(service_.control({"settings", "set", "quarantine.days", "90"}).status, 0);
    EXPECT_EQ(service_.control({"settings", "set", "clients.every_user", "true"}).status, 0);
    EXPECT_EQ(service_.control({"settings", "get", "--json", "quarantine.days"}).output, "90\n");
    EXPECT_EQ(service_.control({"settings", "get", "--json", "clients.every_user"}).output, "true\n");
    EXPECT_NE(service_.control({"settings", "export"}).output, before);
    EXPECT_EQ(service_.control({"settings", "import"}, R"({"manual_scan":{"scan_workers":9},"bogus":{}})").status, 2);
    EXPECT_EQ(service_.control({"settings", "get", "manual_scan.scan_workers"}).output, "3\n") << "all or nothing";
    EXPECT_EQ(service_.control({"settings", "import"}, before).status, 0);
    EXPECT_EQ(service_.control({"settings", "export"}).output, before);
    const std::string more =
        R"({"notices":{"hook":true,"hook_url":"https://a.example.org/t","hook_token":"hush","kinds":"find"},)"
        R"("updates":{"proxy_password":"hush too"}})";
    EXPECT_EQ(service_.control({"settings", "import"}, more).status, 0);
    EXPECT_EQ(service_.control({"settings", "get", "notices.hook_url"}).output, "https://a.example.org/t\n");
    EXPECT_EQ(service_.control({"settings", "export"}).output.find("hush"), std::string::npos);
    const std::string whole = service_.control({"settings", "export", "--secrets"}).output;
    EXPECT_NE(whole.find("\"hush\""), std::string::npos);
    EXPECT_NE(whole.find("\"hush too\""), std::string::npos);
    EXPECT_EQ(service_.control({"settings", "import"}, whole).status, 0);
    for (const char* const wrong :
         {R"({"notices":{"hook":"yes"}})", R"({"notices":{"bogus":1}})", R"({"notices":{"hook_url":"ftp://x"}})"})
        EXPECT_EQ(service_.control({"settings", "import"}, wrong).status, 2) << wrong;
}

TEST_F(ControlTest, ProgramsReadTheStatusAsJson) {
    ASSERT_TRUE(service_.start());
    const ProcessResult status = service_.control({"status", "--json"});
    const JsonDocument object = parseJson(status.output);
    ASSERT_TRUE(object.IsObject()) << status.output;
    EXPECT_EQ(textOf(object, "database"), "loaded");
    EXPECT_FALSE(flagOf(object, "reloading"));
    EXPECT_GT(numberOf(object, "signatures"), 0);
    EXPECT_NE(textOf(object, "version"), "");
}

TEST(Keldractl, ItsOptionsReachTheServiceAndWrongOnesDoNot) {
    const TempDir folder;
    ScriptedService service(folder / "socket");
    const auto scan = [&](const char* workers) {
        return runProgram({.argv = {serviceProgram("keldractl"), "--socket", folder / "socket", "scan", "--workers",
                                    workers, "--act", "/srv/a;b", "/srv/c"}})
            .status;
    };
    EXPECT_EQ(scan("7"), 2);
    const auto requests = service.takeRequests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].value<std::string>("Workers"), "7");
    EXPECT_EQ(requests[0].value<std::string>("Act"), "1");
    EXPECT_EQ(requests[0].value<std::string>("Paths"), "/srv/a\\;b;/srv/c");
    for (const char* wrong : {"33", "-1", "x"}) EXPECT_EQ(scan(wrong), 2);
    EXPECT_TRUE(service.takeRequests().empty());
}

TEST_F(ControlTest, WhatGoesWrongIsAnObjectForPrograms) {
    const auto codeOf = [this](const std::vector<std::string>& words) {
        const ProcessResult result = service_.control(words);
        EXPECT_EQ(result.errors.find("keldractl: "), 0U) << "people are told as well";
        EXPECT_NE(result.status, 0);
        const std::size_t line = result.output.rfind('\n', result.output.size() - 2);
        const JsonDocument told = parseJson(line == std::string::npos ? result.output : result.output.substr(line + 1));
        return told.IsObject() && told.HasMember("error") ? textOf(told["error"], "code") : result.output;
    };
    EXPECT_EQ(codeOf({"status", "--json"}), "no_answer");
    ASSERT_TRUE(service_.start());
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{"--bogus", "--json"}, "unknown_option"},
        {{"scan", "--workers", "2", "--bogus=1", "--json"}, "unknown_option"},
        {{"bogus", "--json"}, "unknown_command"},
        {{"quarantine", "--json"}, "unknown_option"},
        {{"scan", "--json"}, "wrong_arguments"},
        {{"sessions", "end", "--json"}, "wrong_arguments"},
        {{"sessions", "end", "none", "--json"}, "not_found"},
        {{"settings", "get", "bogus.name", "--json"}, "not_found"},
        {{"settings", "set", "manual_scan.scan_workers", "x", "--json"}, "wrong_value"},
        {{"quarantine", "restore", "none", "--json"}, "refused"},
        {{"scan", service_.file("samples") / "missing", "--json"}, "not_completed"},
        {{"passwd", "--stdin", "--state", service_.file("state"), "--json"}, "failed"}};
    for (const auto& [words, code] : rows) EXPECT_EQ(codeOf(words), code) << words[0];
    EXPECT_NE(service_.control({"--bogus"}).errors.find("unknown option \"--bogus\""), std::string::npos);
}

TEST_F(ControlTest, AScanAndTheHistorySayTheSameByTheSameNames) {
    ASSERT_TRUE(service_.start());
    std::istringstream lines(service_.control({"scan", service_.file("samples"), "--json"}).output);
    std::string line;
    while (lines.peek() != EOF) std::getline(lines, line);
    const JsonDocument scan = parseJson(line);
    const JsonDocument history = parseJson(service_.control({"history", "--json"}).output);
    ASSERT_TRUE(scan.IsObject() && history.IsArray() && !history.Empty()) << line;
    EXPECT_TRUE(static_cast<const JsonValue&>(scan) == history[0]) << line;
    EXPECT_EQ(numberOf(scan, "found"), 1);
    EXPECT_EQ(parseJson(service_.control({"settings", "get", "--json", "quarantine"}).output)["days"].GetInt(), 180);
    EXPECT_EQ(service_.control({"settings", "set", "quarantine.days", "90", "--json"}).output, "{\"message\":\"\"}\n");
}

/// What follows the keldractl `words`, a blank between them, on a command line.
std::set<std::string> completed(const std::string& words) {
    const std::string script = std::string("cd /; source '") + SOURCE_DIR +
                               "/deploy/completion/keldractl'; compopt() { :; }; COMP_WORDS=(keldractl " + words +
                               " --); [ -n '" + words +
                               "' ] || COMP_WORDS=(keldractl ''); "
                               "COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _keldractl; printf '%s\n' \"${COMPREPLY[@]}\"";
    std::istringstream out(
        runProgram({.argv = {"/bin/bash", "-c", script}, .environment = {{"PATH", "/usr/bin:/bin"}}}).output);
    return {std::istream_iterator<std::string>(out), {}};
}

/// Follows --help down through all commands.
void compareHelp(const std::string& words, const std::string& manual) {
    std::vector<std::string> argv{serviceProgram("keldractl")};
    std::istringstream parts(words);
    argv.insert(argv.end(), std::istream_iterator<std::string>(parts), {});
    argv.emplace_back("--help");
    const std::string help = runProgram({.argv = argv}).output;
    const std::size_t commands = help.find("Subcommands:");
    const std::set<std::string> offered = completed(words);
    const std::regex option("^ +(?:-h,)?(--[a-z-]+)", std::regex::multiline);
    for (std::sregex_iterator found(help.begin(), help.end(), option), end; found != end; ++found) {
        const std::string name = (*found)[1];
        EXPECT_NE(manual.find(name), std::string::npos) << words << ": the manual page lacks " << name;
        const bool shown = offered.contains(name) || (!words.empty() && commands != std::string::npos);
        EXPECT_TRUE(shown) << words << ": the completion lacks " << name;
    }
    if (commands == std::string::npos) return;
    std::istringstream lines(help.substr(commands));
    std::string line;
    for (std::getline(lines, line); std::getline(lines, line);) {
        if (line.size() < 3 || line[0] != ' ' || line[2] == ' ') continue;
        const std::string next = words + (words.empty() ? "" : " ") + line.substr(2, line.find(' ', 2) - 2);
        EXPECT_NE(manual.find("\n" + next), std::string::npos) << "the manual page lacks " << next;
        compareHelp(next, manual);
    }
}

TEST(Keldractl, CompletionAndManualPageKnowEveryCommandAndOption) {
    std::string manual = readFile(std::string(SOURCE_DIR) + "/docs/man/keldractl.8");
    for (const auto& [mark, sign] : {std::pair{"\\\\f[BRI]", ""}, {"\\\\-", "-"}})
        manual = std::regex_replace(manual, std::regex(mark), sign);
    compareHelp("", manual);
    EXPECT_TRUE(completed("").contains("scan"));
    const std::string page =
        runProgram({.argv = {"/usr/bin/man", "--warnings", "-l", std::string(SOURCE_DIR) + "/docs/man/keldractl.8"},
                    .environment = {{"LC_ALL", "C.UTF-8"}, {"PATH", "/usr/bin:/bin"}}})
            .errors;
    EXPECT_EQ(page, "");
}

TEST_F(ControlTest, InitNeverTouchesWhatIsThere) {
    writeFile(service_.file("config.xml"), "<Document/>");
    const std::string key = readFile(service_.file("key"));
    const ProcessResult again = service_.control({"init", "--config", service_.file("config.xml"), "--state",
                                                  service_.file("state"), "--key", service_.file("key")});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(readFile(service_.file("config.xml")), "<Document/>");
    EXPECT_EQ(readFile(service_.file("key")), key);
}

}  // namespace
