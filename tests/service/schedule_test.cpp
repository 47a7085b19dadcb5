#include "norv/au_config.h"
#include "norv/scan_config.h"
#include "tests/service/service_test.h"

#include <ctime>

#include <array>
#include <thread>

namespace {

using enum IPCMessage::CommandID;

/// The local time of day in so many seconds.
std::string timeOfDay(int secondsFromNow) {
    const std::time_t then = std::time(nullptr) + secondsFromNow;
    std::tm local{};
    localtime_r(&then, &local);
    std::array<char, 16> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%H:%M:%S", &local)};
}

class ScheduleTest : public ServiceTest {
protected:
    /// Waits for a time of the status to be set; 0 when it is not within the time.
    long await(const char* name) const {
        long value = 0;
        for (int i = 0; i < 300 && value == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            value = get(SERVICE_STATUS).value<long>(name);
        }
        return value;
    }
};

TEST_F(ScheduleTest, AScanSetForInAMomentRunsThenAndOnlyOnce) {
    writeFile(service_.file("samples") / "clean.txt", "nothing\n");
    ASSERT_TRUE(service_.start());
    auto record = read<NORVScheduledScanConfig>(SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig");
    record.frequency = NORVScheduledScanConfig::DAILY;
    record.time = timeOfDay(3);
    const std::time_t before = std::time(nullptr);
    ASSERT_EQ(store(SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig", record).result, 1);
    const long planned = get(SERVICE_STATUS).value<long>("NextScan");
    EXPECT_GE(planned, before);
    EXPECT_LE(planned, before + 10);
    EXPECT_GE(await("LastScan"), planned) << "not before its time";

    // An end right after it, and a start within the same minute, do not run it again.
    const auto complete = [this] { return get(SCAN_HISTORY).value<std::string>("Scans").find("\"state\":3"); };
    for (int i = 0; i < 300 && complete() == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    service_.stop();
    ASSERT_TRUE(service_.start());
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    const std::string scans = get(SCAN_HISTORY).value<std::string>("Scans");
    const auto first = scans.find("\"scheduled\"");
    EXPECT_NE(first, std::string::npos) << scans;
    EXPECT_EQ(scans.find("\"scheduled\"", first + 1), std::string::npos) << scans;
    EXPECT_GT(get(SERVICE_STATUS).value<long>("NextScan"), planned + 80000) << "tomorrow";
}

TEST_F(ScheduleTest, AnUpdateSetForInAMomentRunsThen) {
    std::string document = readFile(service_.file("config.xml"));
    const std::string randomized = "Name=\"RandomizedUpdate\" Value=\"1\"";
    if (const auto at = document.find(randomized); at != std::string::npos)
        document.replace(at + randomized.size() - 2, 1, "0");
    writeFile(service_.file("config.xml"), document);
    ASSERT_TRUE(service_.start());
    NORVScheduledAUConfig record;
    record.components = UPDATE_SCAN_ENGINE;
    record.kind = NORVScheduledAUConfig::DAILY;
    record.period = 1;
    record.time = timeOfDay(3);
    ASSERT_EQ(store(SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", record).result, 1);
    EXPECT_GT(await("LastUpdate"), 0);
    EXPECT_EQ(get(UPDATE_STATUS).value<int>("Scheduled"), 1);
}

}  // namespace
