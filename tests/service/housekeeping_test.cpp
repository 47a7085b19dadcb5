#include "tests/service/service_test.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

namespace {

using enum IPCMessage::CommandID;
namespace fs = std::filesystem;
using std::chrono::seconds;

/// What a service does without being asked.
class HousekeepingTest : public ServiceTest {
protected:
    bool isLogged(const std::string& part) const {
        const auto lines = service_.log();
        return std::any_of(lines.begin(), lines.end(),
                           [&part](const LogLine& line) { return line.message.find(part) != std::string::npos; });
    }
    /// Also asks for something that does not look at the configuration, and is traced where the level says so.
    bool isTraced() const { return get(VIRUS_TYPES).result == 1 && isLogged("get virus types: result 1"); }
    void setLevel(const std::string& level) const {
        const std::string group = R"(Type="Configuration">)";
        std::string document = readFile(service_.file("config.xml"));
        document.insert(document.find(group) + group.size(), R"(<P Name="UserDebugLevel" Value=")" + level + R"("/>)");
        writeFile(service_.file("config.xml"), document);
    }
    static bool comesTrue(const std::function<bool()>& holds, seconds patience) {
        const auto until = std::chrono::steady_clock::now() + patience;
        while (!holds() && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return holds();
    }
};

TEST_F(HousekeepingTest, AMinuteBringsEverythingInOrder) {
    constexpr int PROGRESS_FILES = 6;
    const fs::path state = service_.file("state");
    const std::string old(32, 'a');
    writeFile(state / "quarantine" / (old + ".data"), "x");
    writeFile(state / "quarantine" / (old + ".json"),
              R"({"id":")" + old + R"(","phase":"kept","path":"/srv/a","when":1})" + "\n");
    service_.arguments.insert(service_.arguments.end(), {"--session-idle", "1"});
    ASSERT_TRUE(service_.setPassword("correct horse battery"));
    ASSERT_TRUE(service_.start());
    ASSERT_NE(service_.logOn("correct horse battery"), "");
    const std::size_t withSession = fs::file_size(state / "sessions");
    fs::rename(state / "history", state / "away");
    writeFile(state / "history", "in the way");
    const ProcessResult scan = service_.control({"scan", service_.file("samples")});
    fs::remove(state / "history");
    fs::rename(state / "away", state / "history");
    ASSERT_TRUE(fs::is_empty(state / "history")) << scan.output;
    for (int i = 0; i < PROGRESS_FILES; ++i) {
        const fs::path file = service_.file("var") / ("progress_" + std::to_string(i) + ".txt");
        writeFile(file, "10");
        fs::last_write_time(file, fs::file_time_type::clock::now() - std::chrono::hours(48));
    }
    setLevel("5");

    EXPECT_TRUE(comesTrue([this] { return isTraced(); }, seconds(80))) << "a document changed by hand is in force";
    const auto comesSoon = [](const std::function<bool()>& holds) { return comesTrue(holds, seconds(10)); };
    EXPECT_TRUE(comesSoon([&] { return fs::file_size(state / "sessions") < withSession; })) << "ended log-ons go";
    EXPECT_TRUE(comesSoon([&] { return !fs::is_empty(state / "history"); })) << "what could not be stored is";
    EXPECT_TRUE(comesSoon([&] {
        return !fs::exists(service_.file("var") / "progress_0.txt") ||
               !fs::exists(service_.file("var") / "progress_5.txt");
    })) << "old progress files go";
    EXPECT_TRUE(comesSoon([this] { return isLogged("1 files in quarantine are to be removed"); }));
}

TEST_F(HousekeepingTest, AHangUpReadsConfigurationAndSignaturesAgain) {
    const fs::path own = service_.file("own");
    fs::create_directory(own);
    service_.arguments.insert(service_.arguments.end(), {"--signatures", own});
    ASSERT_TRUE(service_.start());
    const auto known = [this] { return get(SERVICE_STATUS).value<long>("Signatures"); };
    const long before = known();
    EXPECT_FALSE(isTraced());
    setLevel("5");
    EXPECT_FALSE(isTraced());
    writeFile(own / "own.hdb", "44d88612fea8a8f36de82e1278abb02f:68:Own.Test\n");
    ASSERT_EQ(::kill(service_.pid(), SIGHUP), 0);
    EXPECT_TRUE(comesTrue([this] { return isTraced(); }, seconds(20)));
    EXPECT_TRUE(comesTrue([&] { return known() == before + 1; }, seconds(20)));
    EXPECT_TRUE(service_.running());
}

}  // namespace
