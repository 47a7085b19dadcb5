#pragma once

#include "norv/log.h"
#include "norv/norv_config.h"
#include "tests/harness/console.h"
#include "tests/harness/log_file.h"
#include "tests/harness/scripted_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

/// A configuration document as the service hands it out.
inline NORVConfig configurationOf(std::string_view xml, long lastModified = 0) {
    return {std::vector<char>(xml.begin(), xml.end()), lastModified};
}

/// Tests that run the program's functions in the test's own process, inside a console tree of their own.
class PageTest : public ::testing::Test {
protected:
    PageTest() {
        const std::filesystem::path root = console.var().parent_path();
        std::filesystem::current_path(root / "cgi");
        for (const char* name : {"REQUEST_METHOD", "QUERY_STRING", "HTTP_COOKIE", "REMOTE_ADDR"}) unsetenv(name);
        setenv("KELDRA_LOCALE", "en-US", 1);
        setenv("KELDRA_LOG", (root / "log").c_str(), 1);
        setenv("KELDRA_SOCKET", console.socket().c_str(), 1);
        setenv("KELDRA_KEY_FILE", console.keyFile().c_str(), 1);
        initLog("unit", LOG_LOCAL3, NORV_LOG_TRACE);
    }
    ~PageTest() override { std::filesystem::current_path("/"); }

    /// What the function writes to standard output.
    static std::string written(const std::function<void()>& run) {
        ::testing::internal::CaptureStdout();
        run();
        return ::testing::internal::GetCapturedStdout();
    }
    /// The messages logged at a severity so far, in their order.
    std::vector<std::string> logged(int severity) const {
        std::vector<std::string> messages;
        for (const LogLine& line : readLog(console.var().parent_path() / "log")) {
            if (line.severity == severity) messages.push_back(line.message);
        }
        return messages;
    }

    Console console;
};
