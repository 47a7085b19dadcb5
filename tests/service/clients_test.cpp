#include "tests/service/service_test.h"

#include <set>
#include <sstream>
#include <thread>

namespace {

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

/// A scan for another program, by the client program of clamd.
class ClientsTest : public ServiceTest {
protected:
    void SetUp() override {
        if (runProgram({.argv = {"/usr/bin/clamdscan", "--version"}}).status != 0)
            GTEST_SKIP() << "clamdscan is not installed (package clamdscan)";
        std::string text = readFile(service_.file("config.xml"));
        const std::string group =
            "<Group Type=\"Clients\"><P Name=\"Enabled\" Value=\"1\"/><P Name=\"Socket\" Value=\"" +
            service_.file("clamd.sock").string() + "\"/></Group></Document>";
        text.replace(text.rfind("</Document>"), std::string::npos, group);
        writeFile(service_.file("config.xml"), text);
        writeFile(service_.file("samples") / "clean", "nothing");
        writeFile(service_.file("samples") / "empty", "");
        writeFile(service_.file("samples") / "bad", testFile());
        writeFile(service_.file("samples") / "sub" / "bad", testFile());
        zip({"-qj", "bad.zip", "bad"});
        zip({"-qjP", "word", "locked.zip", "bad"});
        ASSERT_TRUE(service_.start());
    }
    void zip(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "/usr/bin/zip");
        EXPECT_EQ(runProgram({.argv = arguments, .workingDirectory = service_.file("samples")}).status, 0);
    }
    /// What clamdscan says of the samples, as a set of lines without the folder they lie in.
    std::set<std::string> scan(const std::filesystem::path& socket, const std::vector<std::string>& how) const {
        writeFile(service_.file("client.conf"), "LocalSocket " + socket.string() + "\n");
        std::vector<std::string> command{"/usr/bin/clamdscan", "--no-summary",
                                         "--config-file=" + service_.file("client.conf").string()};
        command.insert(command.end(), how.begin(), how.end());
        command.push_back(service_.file("samples"));
        const ProcessResult result = runProgram({.argv = command});
        std::istringstream text(result.output);
        std::set<std::string> lines{"status " + std::to_string(result.status)};
        for (std::string line; std::getline(text, line);) lines.insert(line);
        return lines;
    }
};

TEST_F(ClientsTest, OtherProgramsAreToldWhatClamdWouldSay) {
    writeFile(service_.file("clamd.conf"), "Foreground yes\nUser root\nLocalSocket " +
                                               service_.file("other.sock").string() + "\nDatabaseDirectory " +
                                               SOURCE_DIR + "/deploy/signatures\nTemporaryDirectory " +
                                               service_.file("state").string() + "\n");
    BackgroundProcess clamd({.argv = {"/usr/sbin/clamd", "-c", service_.file("clamd.conf")}},
                            service_.file("clamd.out"));
    for (int i = 0; i < 500 && clamd.running() && !std::filesystem::exists(service_.file("other.sock")); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(clamd.running(), std::filesystem::exists("/usr/sbin/clamd"));
    for (const std::vector<std::string>& how :
         {std::vector<std::string>{}, {"--fdpass"}, {"--stream"}, {"--multiscan"}, {"--fdpass", "--multiscan"}}) {
        const auto ours = scan(service_.file("clamd.sock"), how);
        EXPECT_EQ(ours.count("status 1"), 1U);
        EXPECT_GE(ours.size(), 3U);
        if (!clamd.running()) continue;
        EXPECT_EQ(ours, scan(service_.file("other.sock"), how)) << (how.empty() ? "" : how.back());
    }
}

}  // namespace
