#include "tests/unit/support/captured_log.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/support/scoped_environment.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

std::vector<LogLine> capturedLog(NORV_LOG_SEVERITY level, const std::function<void()>& before,
                                 const std::function<void()>& after) {
    constexpr const char* MARK = "here begins what the test logs";
    const TempDir folder;
    const ScopedEnvironment route("KELDRA_LOG", (folder / "log").string());
    const pid_t child = ::fork();
    if (child == 0) {
        writeLog(level, nullptr, nullptr, 0, "%s", MARK);
        before();
        initLog("/usr/lib/keldra/program.cgi", 152, level);
        after();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    std::vector<LogLine> lines = readLog(folder / "log");
    // The tests before this one may have left lines that wait for the log to open.
    const auto mark =
        std::find_if(lines.begin(), lines.end(), [&](const LogLine& line) { return line.message == MARK; });
    EXPECT_NE(lines.end(), mark);
    lines.erase(lines.begin(), mark == lines.end() ? mark : mark + 1);
    return lines;
}
