#include "norv/au_config.h"
#include "norv/scan_config.h"
#include "tests/service/service_test.h"

#include <chrono>
#include <future>
#include <vector>

namespace {

using enum IPCMessage::CommandID;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class SlowDiskTest : public ServiceTest {
protected:
    SlowDiskTest() {
        EXPECT_TRUE(service_.setPassword("right password"));
        std::filesystem::create_directories(hanging_);
        service_.environment["LD_PRELOAD"] = SLOW_DISK;
    }
    /// The longest that a question of a page waited.
    milliseconds longestWait() const {
        milliseconds longest{0};
        for (const auto command : {CONFIG_FILE_STATE, MANUAL_SCAN_CONFIG, SERVICE_STATUS, UPDATE_STATUS, SESSIONS,
                                   SCAN_HISTORY, QUARANTINE, EVENTS}) {
            const auto begin = steady_clock::now();
            EXPECT_EQ(get(command).result, 1) << command;
            const auto waited = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
            EXPECT_LT(waited, milliseconds(500)) << command;
            longest = std::max(longest, waited);
        }
        return longest;
    }
    std::future<IPCMessage> later(IPCMessage::Operation operation, IPCMessage::CommandID command,
                                  const std::string& name, const std::string& value) const {
        IPCMessage request(operation, command);
        if (!name.empty()) request.addParam(name, value);
        return std::async(std::launch::async,
                          [this, request] { return service_.ask(request, seconds(60)).value_or(IPCMessage()); });
    }

    const std::filesystem::path hanging_ = service_.file("samples") / "hangs";
};

TEST_F(SlowDiskTest, AFolderThatHangsHoldsUpNobodyElseAndNoEnd) {
    ASSERT_TRUE(service_.start());
    NORVManualScanConfig record;
    record.scanPaths = hanging_;
    std::ostringstream text;
    text << record;
    auto saved = later(IPCMessage::SET, MANUAL_SCAN_CONFIG, "ManualScanConfig", text.str());
    std::vector<std::future<IPCMessage>> lists;
    for (int i = 0; i < 6; ++i) lists.push_back(later(IPCMessage::GET, FOLDER_LIST, "Path", hanging_));
    std::this_thread::sleep_for(milliseconds(200));
    EXPECT_LT(longestWait(), milliseconds(500));
    EXPECT_NE(service_.logOn("right password"), "");
    EXPECT_EQ(store(SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", NORVScheduledAUConfig()).result, 1);
    const IPCMessage refused = saved.get();
    EXPECT_EQ(refused.result, 2);
    EXPECT_NE(refused.value<std::string>("Message").find("takes too long"), std::string::npos);
    for (auto& list : lists) EXPECT_EQ(list.get().result, 2);
    EXPECT_EQ(ask(IPCMessage::GET, FOLDER_LIST, "Path", service_.file("samples")).result, 1)
        << "the threads that hang were replaced";
    EXPECT_EQ(service_.stop(seconds(8)), 0);
}

TEST_F(SlowDiskTest, ADiskThatIsSlowToSyncHoldsUpOnlyWhoWrites) {
    service_.environment["SLOW_DISK_MILLISECONDS"] = "3000";
    ASSERT_TRUE(service_.start());
    const std::string text = R"({"NORVScheduledAUConfig":{"components":1}})";
    auto saved = later(IPCMessage::SET, SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", text);
    // And all sorts of others who write meanwhile.
    auto loggedOn = std::async(std::launch::async, [this] { return service_.logOn("right password"); });
    auto scanned = later(IPCMessage::START, MANUAL_SCAN, "", "");
    std::this_thread::sleep_for(milliseconds(200));
    for (int i = 0; i < 3; ++i) EXPECT_LT(longestWait(), milliseconds(500));
    EXPECT_EQ(saved.get().result, 1);
    EXPECT_NE(loggedOn.get(), "");
    scanned.get();
}

}  // namespace
