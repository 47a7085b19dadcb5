#include "tests/service/service_test.h"

#include <set>
#include <sstream>
#include <thread>

namespace {

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

/// Scans for other programs, beside clamd with the same signatures where that is installed.
class ClientsTest : public ServiceTest {
protected:
    void SetUp() override {
        std::string text = readFile(service_.file("config.xml"));
        const std::string group =
            "<Group Type=\"Clients\"><P Name=\"Enabled\" Value=\"1\"/><P Name=\"StreamLimit\" Value=\"1\"/>"
            "<P Name=\"Socket\" Value=\"" +
            service_.file("clamd.sock").string() + "\"/></Group></Document>";
        text.replace(text.rfind("</Document>"), std::string::npos, group);
        writeFile(service_.file("config.xml"), text);
        writeFile(service_.file("samples") / "clean", "nothing");
        writeFile(service_.file("samples") / "empty", "");
        writeFile(service_.file("samples") / "bad", testFile());
        zip({"-qj", "bad.zip", "bad"});
        zip({"-qjP", "word", "locked.zip", "bad"});
        ASSERT_TRUE(service_.start());
    }
    void zip(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "/usr/bin/zip");
        EXPECT_EQ(runProgram({.argv = arguments, .workingDirectory = service_.file("samples")}).status, 0);
    }
    std::unique_ptr<BackgroundProcess> startClamd() const {
        writeFile(service_.file("clamd.conf"), "Foreground yes\nUser root\nStreamMaxLength 1M\nLocalSocket " +
                                                   service_.file("other.sock").string() + "\nDatabaseDirectory " +
                                                   SOURCE_DIR + "/deploy/signatures\nTemporaryDirectory " +
                                                   service_.file("state").string() + "\n");
        auto clamd = std::make_unique<BackgroundProcess>(
            Command{.argv = {"/usr/sbin/clamd", "-c", service_.file("clamd.conf")}}, service_.file("clamd.out"));
        for (int i = 0; i < 500 && clamd->running() && !std::filesystem::exists(service_.file("other.sock")); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(clamd->running(), std::filesystem::exists("/usr/sbin/clamd"));
        return clamd;
    }
    /// What clamdscan says of the samples, as a set of lines.
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
    /// What comes of each sample when another program asks (tests/clients/drive).
    ProcessResult drive(const std::string& program, const std::filesystem::path& socket) const {
        const std::filesystem::path work = service_.file("work");
        std::filesystem::remove_all(work);
        std::filesystem::create_directories(work);
        return runProgram({.argv = {std::string(SOURCE_DIR) + "/tests/clients/drive", program, socket,
                                    service_.file("samples"), work},
                           .environment = {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"},
                                           {"KELDRACTL", std::string(BINARY_DIR) + "/service/keldractl --socket " +
                                                             service_.socket().string()}},
                           .timeout = std::chrono::seconds(90)});
    }
};

TEST_F(ClientsTest, OtherProgramsAreToldWhatClamdWouldSay) {
    if (!std::filesystem::exists("/usr/bin/clamdscan")) GTEST_SKIP() << "clamdscan is not installed";
    writeFile(service_.file("samples") / "sub" / "bad", testFile());
    const auto clamd = startClamd();
    for (const std::vector<std::string>& how :
         {std::vector<std::string>{}, {"--fdpass"}, {"--stream"}, {"--multiscan"}, {"--fdpass", "--multiscan"}}) {
        const auto ours = scan(service_.file("clamd.sock"), how);
        EXPECT_EQ(ours.count("status 1"), 1U);
        EXPECT_GE(ours.size(), 3U);
        if (!clamd->running()) continue;
        EXPECT_EQ(ours, scan(service_.file("other.sock"), how)) << (how.empty() ? "" : how.back());
    }
}

struct OtherProgram {
    const char* name;
    std::vector<const char*> outcome;  ///< lines that must be among what comes of the samples
};

class OtherProgramsTest : public ClientsTest, public testing::WithParamInterface<OtherProgram> {};

TEST_P(OtherProgramsTest, WhoAsksClamdMayAskTheServiceInstead) {
    writeFile(service_.file("samples") / "large", std::string(std::size_t{1500} << 10U, 'x'));
    const ProcessResult ours = drive(GetParam().name, service_.file("clamd.sock"));
    if (ours.status == 77) GTEST_SKIP() << ours.output;
    EXPECT_EQ(ours.status, 0) << ours.errors;
    for (const char* const line : GetParam().outcome)
        EXPECT_NE(("\n" + ours.output).find(std::string("\n") + line), std::string::npos) << line << ours.output;
    const std::string events = service_.control({"events", "--kind", "find", "--json"}).output;
    EXPECT_NE(events.find("\"task\":\"client\""), std::string::npos) << events;
    if (std::string_view(GetParam().name) == "samba") {
        EXPECT_NE(events.find("share docs"), std::string::npos) << events;
        EXPECT_NE(events.find("\"user\":\"root\",\"address\":\"127.0.0.1\""), std::string::npos) << events;
    }
    const auto clamd = startClamd();
    if (!clamd->running()) return;
    EXPECT_EQ(ours.output, drive(GetParam().name, service_.file("other.sock")).output);
}

INSTANTIATE_TEST_SUITE_P(
    Programs, OtherProgramsTest,
    testing::Values(OtherProgram{"pyclamd",
                                 {"clean None None\n", "empty not sent None\n", "large connection ended None\n",
                                  "bad {'stream': ('FOUND'"}},
                    OtherProgram{"icap", {"clean 204\n", "bad 200 403 Eicar", "bad.zip 200 403 Eicar"}},
                    OtherProgram{"milter", {"clean accepted\n", "bad rejected\n", "bad.zip rejected\n"}},
                    OtherProgram{"samba",
                                 {"read clean passes\n", "read bad NT_STATUS_ACCESS_DENIED\n", "written clean stays\n",
                                  "written bad is gone\n"}}),
    [](const auto& info) { return info.param.name; });

}  // namespace
