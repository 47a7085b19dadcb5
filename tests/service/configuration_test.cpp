#include "norv/au_config.h"
#include "norv/norv_config.h"
#include "norv/protocol/service_settings.h"
#include "norv/scan_config.h"
#include "tests/service/service_test.h"

#include <sys/resource.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using enum IPCMessage::CommandID;

class ConfigurationTest : public ServiceTest {
protected:
    NORVManualScanConfig manual() const { return read<NORVManualScanConfig>(MANUAL_SCAN_CONFIG, "ManualScanConfig"); }
    int32_t setSizeLimit(uint32_t limit) const {
        NORVManualScanConfig record;
        record.compressFileSizeLimit = limit;
        return store(MANUAL_SCAN_CONFIG, "ManualScanConfig", record).result;
    }
};

template <typename Record>
std::string textOf(const Record& record) {
    std::ostringstream text;
    text << record;
    return text.str();
}

void fillCommon(NORVScanConfig& record, const std::string& samples) {
    record.includeExtList = "exe;com \"quoted\" <&>";
    record.includeHVExtList = true;
    record.customActions = "Virus-3-2,Trojan-2-0";
    record.scanCompressed = true;
    record.compressionLayer = 7;
    record.compressFileSizeLimit = 33;
    record.backupBeforeClean = true;
    record.scanPaths = samples + "/a;" + samples + "/with\\;semicolon";
    record.excludePaths = samples + "/a/tmp";
    record.excludePatterns = "*.iso;*.tmp";
}

TEST_F(ConfigurationTest, EverySettingOfEveryPageIsThereAfterARestart) {
    for (const char* const folder : {"a", "with;semicolon"})
        std::filesystem::create_directories(service_.file("samples") / folder);
    ASSERT_TRUE(service_.start());
    NORVManualScanConfig manual;
    NORVRealtimeScanConfig realtime;
    NORVScheduledScanConfig scheduled;
    for (NORVScanConfig* record : std::initializer_list<NORVScanConfig*>{&manual, &realtime, &scheduled})
        fillCommon(*record, service_.file("samples"));
    manual.scanWorkers = 3;
    realtime.scanTimeLimit = 20;
    realtime.denyOnTimeout = true;
    scheduled.frequency = NORVScheduledScanConfig::MONTHLY;
    scheduled.time = "04:05:00";
    scheduled.weekDay = 3;
    scheduled.monthDay = 31;
    NORVScheduledAUConfig update;
    update.components = 0x23;
    update.kind = 2;
    update.period = 3;
    update.time = "05:06:00";
    update.weekDay = 4;
    EXPECT_EQ(store(MANUAL_SCAN_CONFIG, "ManualScanConfig", manual).result, 1);
    EXPECT_EQ(store(REALTIME_SCAN_CONFIG, "RealtimeScanConfig", realtime).result, 1);
    EXPECT_EQ(store(SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig", scheduled).result, 1);
    EXPECT_EQ(store(SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", update).result, 1);

    EXPECT_EQ(service_.stop(), 0);
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(textOf(this->manual()), textOf(manual));
    auto served = read<NORVRealtimeScanConfig>(REALTIME_SCAN_CONFIG, "RealtimeScanConfig");
    served.serviceRunning = served.kernelHookModuleLoaded = false;
    EXPECT_EQ(textOf(served), textOf(realtime));
    EXPECT_EQ(textOf(read<NORVScheduledScanConfig>(SCHEDULED_SCAN_CONFIG, "ScheduledScanConfig")), textOf(scheduled));
    EXPECT_EQ(textOf(read<NORVScheduledAUConfig>(SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig")), textOf(update));
}

TEST_F(ConfigurationTest, AFieldThatIsNotSentIsKeptAndAMalformedTextChangesNothing) {
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(
        ask(IPCMessage::SET, MANUAL_SCAN_CONFIG, "ManualScanConfig", R"({"NORVManualScanConfig":{"scanWorkers":2}})")
            .result,
        1);
    EXPECT_EQ(manual().scanPaths, service_.file("samples").string());
    EXPECT_EQ(manual().scanWorkers, 2U);
    const long before = stamp();
    for (const char* const bad : {"", "{}", "{\"NORVManualScanConfig\":{\"scanWorkers\":-1}}", "garbage",
                                  "{\"NORVManualScanConfig\":{\"universeAction\":\"9-9\"}}"})
        EXPECT_EQ(ask(IPCMessage::SET, MANUAL_SCAN_CONFIG, "ManualScanConfig", bad).result, 2) << bad;
    EXPECT_EQ(stamp(), before);
}

TEST_F(ConfigurationTest, TwoPeopleSavingAtOnceBothGetADocumentAndAGrowingStamp) {
    ASSERT_TRUE(service_.start());
    std::atomic<int> refused{0};
    const auto save = [&](uint32_t workers) {
        ServiceClient client(service_.socket());
        for (int i = 0; i < 20; ++i) {
            NORVManualScanConfig record;
            record.scanWorkers = workers;
            IPCMessage request(IPCMessage::SET, MANUAL_SCAN_CONFIG);
            request.addParam("ManualScanConfig", record);
            const auto reply = client.ask(request);
            if (!reply || reply->result != 1) ++refused;
        }
    };
    const long before = stamp();
    std::thread one(save, 1);
    std::thread two(save, 2);
    one.join();
    two.join();
    EXPECT_EQ(refused, 0);
    EXPECT_GE(stamp(), before + 40);
}

TEST_F(ConfigurationTest, AKillDuringSavesLosesNothingAcknowledged) {
    uint32_t acknowledged = 0;
    long lastStamp = 0;
    for (uint32_t round = 0; round < 8; ++round) {
        ASSERT_TRUE(service_.start()) << service_.printed();
        EXPECT_EQ(get(CONFIG_FILE_CHECK).result, 1);
        EXPECT_GE(stamp(), lastStamp);
        EXPECT_GE(manual().compressFileSizeLimit, acknowledged);
        std::atomic<uint32_t> stored{0};
        std::thread client([&] {
            for (uint32_t value = round * 7 + 1; value < round * 7 + 8; ++value)
                if (setSizeLimit(value) == 1) stored = value;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(3 + 5 * round));
        lastStamp = std::max(lastStamp, stored > 0 ? stamp() : 0);
        service_.crash();
        client.join();
        acknowledged = std::max(acknowledged, stored.load());
    }
    ASSERT_TRUE(service_.start());
    EXPECT_GE(manual().compressFileSizeLimit, acknowledged);
}

TEST_F(ConfigurationTest, ADocumentThatDoesNotParseIsReportedAndLeftAlone) {
    ASSERT_TRUE(service_.start());
    const std::string broken = "<Document>\n<Group Type=\"ManualScan\"";
    writeFile(service_.file("config.xml"), broken);
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(get(CONFIG_FILE_CHECK).result, 2);
        const IPCMessage state = get(CONFIG_FILE_STATE);
        EXPECT_EQ(state.result, 2);
        EXPECT_FALSE(state.hasParam("Content"));
        EXPECT_EQ(setSizeLimit(1), 2);
        EXPECT_EQ(get(VIRUS_TYPES).result, 1) << "what needs no configuration goes on";
        EXPECT_EQ(readFile(service_.file("config.xml")), broken);
        if (again == 0) {
            service_.stop();
            ASSERT_TRUE(service_.start());
        }
    }
    bool told = false;
    for (const LogLine& line : service_.log())
        told = told || (line.message.find("config.xml") != std::string::npos &&
                        line.message.find("Line number=2") != std::string::npos);
    EXPECT_TRUE(told) << readFile(service_.file("log"));
    std::filesystem::copy_file(service_.file("config.xml.bak"), service_.file("config.xml"),
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_EQ(get(CONFIG_FILE_CHECK).result, 1) << "the backup brings it back without a restart";
}

TEST_F(ConfigurationTest, AFullDiskRefusesTheSaveAndKeepsWhatWasSaved) {
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(setSizeLimit(3), 1);
    const long before = stamp();
    rlimit usual{};
    const rlimit full{16, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(service_.pid(), RLIMIT_FSIZE, &full, &usual), 0) << "no file may grow beyond a few bytes";
    EXPECT_EQ(setSizeLimit(4), 2);
    EXPECT_EQ(manual().compressFileSizeLimit, 3U);
    EXPECT_EQ(stamp(), before);
    EXPECT_EQ(get(CONFIG_FILE_CHECK).result, 1);
    ASSERT_EQ(::prlimit(service_.pid(), RLIMIT_FSIZE, &usual, nullptr), 0);
    EXPECT_EQ(setSizeLimit(5), 1) << "room again";
    service_.crash();
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(manual().compressFileSizeLimit, 5U);
}

TEST_F(ConfigurationTest, ABackupThatCannotBeWrittenIsToldWithTheSave) {
    std::filesystem::create_directories(service_.file("config.xml.bak") / "in the way");
    ASSERT_TRUE(service_.start());
    NORVScheduledAUConfig update;
    const IPCMessage reply = store(SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", update);
    EXPECT_EQ(reply.result, 1);
    EXPECT_EQ(reply.value<std::string>("BackupResult"), "DiskFull");
    std::filesystem::remove_all(service_.file("config.xml.bak"));
    EXPECT_NE(store(SCHEDULED_UPDATE_CONFIG, "ScheduledAUConfig", update).value<std::string>("BackupResult"),
              "DiskFull");
}

TEST_F(ConfigurationTest, WhatChangesByItselfIsServedButNeverMovesTheStamp) {
    ASSERT_TRUE(service_.start());
    const long before = stamp();
    const std::string content = get(CONFIG_FILE_STATE).value<std::string>("Content");
    const NORVConfig config(std::vector<char>(content.begin(), content.end()), 0);
    EXPECT_FALSE(configValueOr(config, "Varnel", "EngineVersion", std::string()).empty());
    EXPECT_EQ(configValueOr(config, "Configuration", "VarPath", std::string()), service_.file("var").string());
    EXPECT_EQ(stamp(), before);
    EXPECT_EQ(readFile(service_.file("config.xml")).find("EngineVersion"), std::string::npos);
}

TEST_F(ConfigurationTest, TheProxysPasswordIsNotServed) {
    const std::string document = R"(<Document><Group Type="Varnel"><P Name="ProxyServer" Value="proxy.example"/>)"
                                 R"(<P Name="ProxyPassword" Value="tell-nobody"/></Group></Document>)";
    writeFile(service_.file("config.xml"), document);
    ASSERT_TRUE(service_.start());
    const std::string served = get(CONFIG_FILE_STATE).value<std::string>("Content");
    EXPECT_NE(served.find("proxy.example"), std::string::npos);
    EXPECT_EQ(served.find("tell-nobody"), std::string::npos) << served;
    EXPECT_EQ(get(protocol::SERVICE_SETTINGS).value<std::string>("Settings").find("tell-nobody"), std::string::npos);
    EXPECT_EQ(readFile(service_.file("config.xml")), document) << "it is still needed";
}

TEST_F(ConfigurationTest, AnEmptyVarPathIsNeverServed) {
    writeFile(service_.file("config.xml"), "<Document/>");
    service_.arguments.insert(service_.arguments.end(), {"--var", service_.file("var")});
    ASSERT_TRUE(service_.start());
    EXPECT_NE(get(CONFIG_FILE_STATE).value<std::string>("Content").find(service_.file("var").string()),
              std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(service_.file("var") / "HVDefaultExt.txt"));
}

}  // namespace
