#include "norv/log.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/support/captured_log.h"
#include "tests/unit/support/scoped_environment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

namespace {

using testing::ElementsAre;
using testing::Field;

auto message(const std::string& text) { return Field(&LogLine::message, text); }

TEST(Log, WritesTimeProgramSeverityMessageAndPlace) {
    const TempDir folder;
    const ScopedEnvironment route("KELDRA_LOG", (folder / "log").string());
    const pid_t child = ::fork();
    if (child == 0) {
        initLog("/usr/lib/keldra/scanoption.cgi", 152, NORV_LOG_REFUSED);
        writeLog(NORV_LOG_REFUSED, "int main(int, char**)", "webui/cgi/scanoption.cpp", 175, "refused %s", "it");
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    const std::string text = readFile(folder / "log");
    EXPECT_TRUE(std::regex_search(
        text, std::regex(R"((^|\n)\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z scanoption\.cgi\[)" + std::to_string(child) +
                         R"(\] 1 refused it \(int main\(int, char\*\*\) webui/cgi/scanoption\.cpp:175\)\n$)")))
        << text;
}

TEST(Log, FileIsForItsOwnerAloneAndIsAppendedTo) {
    const TempDir folder;
    const ScopedEnvironment route("KELDRA_LOG", (folder / "log").string());
    for (int run = 0; run < 2; ++run) {
        const pid_t child = ::fork();
        if (child == 0) {
            initLog("program", 152, NORV_LOG_REFUSED);
            NORV_LOG(NORV_LOG_REFUSED, "run %d", run);
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
    }
    struct stat status {};
    ASSERT_EQ(0, ::stat((folder / "log").c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 0777U);
    const std::string text = readFile(folder / "log");
    EXPECT_LT(text.find("run 0"), text.find("run 1"));
    EXPECT_NE(std::string::npos, text.find("run 1"));
}

TEST(Log, LinesFromBeforeTheLevelIsKnownAreKeptOrDroppedByIt) {
    const auto lines = capturedLog(
        NORV_LOG_ERROR,
        [] {
            NORV_LOG(NORV_LOG_REFUSED, "early refusal");
            NORV_LOG(NORV_LOG_TRACE, "early trace");
        },
        [] {
            NORV_LOG(NORV_LOG_WARNING, "late warning");
            NORV_LOG(NORV_LOG_ERROR, "late error");
            setLogLevel(NORV_LOG_WARNING);
            NORV_LOG(NORV_LOG_WARNING, "warning at the new level");
        });
    EXPECT_THAT(lines,
                ElementsAre(message("early refusal"), message("late error"), message("warning at the new level")));
}

TEST(Log, AFloodBeforeTheLevelIsKnownIsBounded) {
    const auto lines = capturedLog(
        NORV_LOG_TRACE,
        [&] {
            for (int i = 0; i < 5000; ++i) NORV_LOG(NORV_LOG_TRACE, "line %d", i);
        },
        [] { NORV_LOG(NORV_LOG_TRACE, "still alive"); });
    EXPECT_LT(lines.size(), 1500U);
    EXPECT_EQ("still alive", lines.back().message);
}

TEST(Log, TextFromOutsideCannotForgeALineOrSteerATerminal) {
    struct Case {
        std::string text;
        std::string written;
    };
    const std::vector<Case> cases = {
        {"one newline at the end goes\n", "one newline at the end goes"},
        {"a\n2026-01-01T00:00:00.000Z forged[1] 1 x", "a\\n2026-01-01T00:00:00.000Z forged[1] 1 x"},
        {"a\r\tb", "a\\r\\tb"},
        {"\x1b[2J\x7f\x01", "\\x1b[2J\\x7f\\x01"},
        {"\xc2\x9b"
         "2J",
         "\\xc2\\x9b"
         "2J"},
        {"Größe 大 \xf0\x9f\x98\x80", "Größe 大 \xf0\x9f\x98\x80"},
        {"\xff\xc3", "\\xff\\xc3"},
        {"\xc0\xaf \xe0\x80\xaf", "\\xc0\\xaf \\xe0\\x80\\xaf"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"100%s%n", "100%s%n"},
        {std::string(3000, 'y'), std::string(3000, 'y')},
        {"", ""},
    };
    const auto lines = capturedLog(NORV_LOG_TRACE, [&] {
        for (const Case& c : cases) NORV_LOG(NORV_LOG_TRACE, "%s", c.text.c_str());
    });
    ASSERT_EQ(cases.size(), lines.size());
    for (std::size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].written, lines[i].message);
}

TEST(Log, APlaceMayBeAFunctionAlone) {
    const auto lines =
        capturedLog(NORV_LOG_TRACE, [] { writeLog(NORV_LOG_ERROR, "GetVirusType", nullptr, 0, "return error!\n"); });
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ("return error!", lines[0].message);
    EXPECT_EQ("GetVirusType", lines[0].function);
}

}  // namespace
