#include "norv/au_config.h"
#include "norv/norv_config.h"
#include "norv/scan_config.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

template <typename Record>
std::string textOf(const Record& record) {
    std::ostringstream out;
    out << record;
    return out.str();
}

template <typename Record>
bool readInto(Record& record, const std::string& text) {
    std::istringstream in(text);
    return static_cast<bool>(in >> record);
}

void fillCommon(NORVScanConfig& record) {
    record.includeExtList = "exe;\"dll\"\n\\";
    record.includeHVExtList = true;
    record.zelscan = true;
    record.customActions = "Virus-3-2,Joke-0-0";
    record.universeAction = "4-1";
    record.scanCompressed = true;
    record.compressionLayer = 4294967295U;
    record.compressFileSizeLimit = 100;
    record.backupBeforeClean = true;
    record.scanPaths =
        "/srv/Gr\xc3\xb6\xc3\x9f"
        "e;/srv/\xff";
    record.excludePaths = "/srv/a\\;b";
    record.excludePatterns = "*.iso";
}

const std::string COMMON_TEXT = R"("includeExtList":"exe;\"dll\"\n\\","includeHVExtList":true,"zelscan":true,)"
                                R"("customActions":"Virus-3-2,Joke-0-0","universeAction":"4-1","scanCompressed":true,)"
                                R"("compressionLayer":4294967295,"compressFileSizeLimit":100,"backupBeforeClean":true,)"
                                "\"scanPaths\":\"/srv/Gr\xc3\xb6\xc3\x9f"
                                "e;/srv/\xff\","
                                R"("excludePaths":"/srv/a\\;b","excludePatterns":"*.iso")";

/// Writes a record, compares its text, and brings it back through the text and through the configuration.
template <typename Record>
void expectKept(const Record& record, const std::string& text) {
    EXPECT_EQ(text, textOf(record));
    Record read;
    ASSERT_TRUE(readInto(read, text));
    EXPECT_EQ(text, textOf(read));
    NORVConfig config;
    storeRecord(config, record);
    const std::string xml = config.toText();
    EXPECT_EQ(text, textOf(Record(NORVConfig(std::vector<char>(xml.begin(), xml.end()), 0))));
}

TEST(Records, EveryManualScanSettingIsKept) {
    NORVManualScanConfig record;
    fillCommon(record);
    record.scanWorkers = 4;
    expectKept(record, R"({"NORVManualScanConfig":{)" + COMMON_TEXT + R"(,"scanWorkers":4}})");
}

TEST(Records, EveryRealtimeScanSettingIsKept) {
    NORVRealtimeScanConfig record;
    fillCommon(record);
    record.scanDirection = NORVRealtimeScanConfig::INCOMING | NORVRealtimeScanConfig::OUTGOING;
    record.serviceRunning = true;
    record.kernelHookModuleLoaded = true;
    record.scanTimeLimit = 25;
    record.denyOnTimeout = true;
    expectKept(record, R"({"NORVRealtimeScanConfig":{)" + COMMON_TEXT +
                           R"(,"scanDirection":3,"serviceRunning":true,"kernelHookModuleLoaded":true,)"
                           R"("scanTimeLimit":25,"denyOnTimeout":true}})");
}

TEST(Records, EveryScheduledScanSettingIsKept) {
    NORVScheduledScanConfig record;
    fillCommon(record);
    record.frequency = NORVScheduledScanConfig::MONTHLY;
    record.time = "03:30:00";
    record.weekDay = -1;
    record.monthDay = 31;
    expectKept(record, R"({"NORVScheduledScanConfig":{)" + COMMON_TEXT +
                           R"(,"frequency":4,"time":"03:30:00","weekDay":-1,"monthDay":31}})");
}

TEST(Records, EveryUpdateSettingIsKept) {
    NORVManualAUConfig manual;
    manual.components = 0xff;
    expectKept(manual, R"({"NORVManualAUConfig":{"components":255}})");
    NORVScheduledAUConfig scheduled;
    scheduled.components = UPDATE_VIRUS_PATTERN | UPDATE_SPYWARE_PATTERN;
    scheduled.kind = NORVScheduledAUConfig::WEEKLY;
    scheduled.period = 2;
    scheduled.time = "04:15:00";
    scheduled.weekDay = 6;
    expectKept(scheduled,
               R"({"NORVScheduledAUConfig":{"components":33,"kind":3,"period":2,"time":"04:15:00","weekDay":6}})");
}

TEST(Records, TheUpdatePageSeesWhatIsInstalledAndScheduled) {
    NORVConfig config;
    config.setValue("Varnel", "EngineVersion", "1.0.9");
    config.setValue("Varnel", "VirusPatternLastUpdate", "yesterday");
    config.setValue("Varnel", "Schedule", "2-7");
    config.setValue("Varnel", "ScheduledWDay", "5");
    config.setValue("Varnel", "ScheduledComponents", "2");
    config.setValue("Varnel", "ManualComponents", "33");
    const NORVAUConfig record(config);
    EXPECT_EQ("1.0.9", record.engineVersion);
    EXPECT_EQ("yesterday", record.virusPatternLastUpdate);
    EXPECT_EQ("2-7", record.schedule);
    EXPECT_EQ("5", record.scheduledWeekDay);
    EXPECT_EQ(2, record.scheduled.kind);
    EXPECT_EQ(7, record.scheduled.period);
    EXPECT_EQ(UPDATE_SCAN_ENGINE, record.scheduled.components);
    EXPECT_EQ(33, record.manual.components);
}

TEST(Records, AScheduleThatCannotBeReadSwitchesTheUpdateOff) {
    for (const char* text : {"", "2", "2-", "-3", "x-1", "2-1x", "2-99999999999", "2 -1"}) {
        NORVConfig config;
        config.setValue("Varnel", "Schedule", text);
        const NORVScheduledAUConfig record(config);
        EXPECT_EQ(NORVScheduledAUConfig::OFF, record.kind) << text;
        EXPECT_EQ(0, record.period) << text;
    }
}

TEST(Records, AFieldThatIsNotSentKeepsItsValue) {
    NORVScheduledScanConfig record;
    fillCommon(record);
    record.time = "01:00:00";
    NORVScheduledScanConfig expected = record;
    expected.weekDay = 3;
    ASSERT_TRUE(
        readInto(record, " {\"NORVScheduledScanConfig\" : {\"weekDay\": 3, \"newerField\": {\"time\": [1, {}]}} }\n"));
    EXPECT_EQ(textOf(expected), textOf(record));
}

TEST(Records, ANameThatIsNotUTF8OrHoldsANulIsKept) {
    NORVManualScanConfig record;
    record.scanPaths = std::string("/srv/\xff\0x", 8);
    NORVManualScanConfig read;
    ASSERT_TRUE(readInto(read, textOf(record)));
    EXPECT_EQ(record.scanPaths, read.scanPaths);
}

/// A text that is wrong somewhere would otherwise store defaults over settings that somebody made.
TEST(Records, AMalformedTextChangesNothing) {
    const auto wrap = [](const std::string& fields) { return R"({"NORVScheduledScanConfig":{)" + fields + "}}"; };
    const std::string good = R"("time":"23:00:00")";
    const std::vector<std::string> texts = {
        "",
        "null",
        "{}",
        "[]",
        R"({"NORVScheduledScanConfig":null})",
        R"({"NORVScheduledScanConfig":[]})",
        R"({"NORVManualScanConfig":{"time":"23:00:00"}})",
        R"({"NORVScheduledScanConfig":{},"Other":{}})",
        R"({"Other":{},"NORVScheduledScanConfig":{"time":"23:00:00"}})",
        wrap(good) + "x",
        wrap(good) + wrap(good),
        wrap(good).substr(0, wrap(good).size() - 1),
        wrap(good + ","),
        wrap(good + R"(,"time":"22:00:00")"),
        wrap(good + R"(,"weekDay":"3")"),
        wrap(good + R"(,"weekDay":3.0)"),
        wrap(good + R"(,"weekDay":true)"),
        wrap(good + R"(,"weekDay":null)"),
        wrap(good + R"(,"weekDay":2147483648)"),
        wrap(good + R"(,"monthDay":-1)"),
        wrap(good + R"(,"monthDay":4294967296)"),
        wrap(good + R"(,"monthDay":1e2)"),
        wrap(good + R"(,"zelscan":1)"),
        wrap(good + R"(,"zelscan":"true")"),
        wrap(good + R"(,"scanPaths":5)"),
        wrap(good + R"(,"scanPaths":["/srv"])"),
        wrap(good + ",/* comment */\"weekDay\":3"),
    };
    for (const std::string& text : texts) {
        NORVScheduledScanConfig record;
        fillCommon(record);
        const std::string before = textOf(record);
        EXPECT_FALSE(readInto(record, text)) << text;
        EXPECT_EQ(before, textOf(record)) << text;
    }
    NORVManualAUConfig update;
    EXPECT_FALSE(readInto(update, R"({"NORVManualAUConfig":{"components":256}})"));
    EXPECT_FALSE(readInto(update, R"({"NORVManualAUConfig":{"components":-1}})"));
}

TEST(Records, DeepNestingDoesNotUseUpTheStack) {
    const int depth = 1'000'000;
    NORVManualAUConfig record;
    EXPECT_FALSE(readInto(record, std::string(depth, '[')));
    EXPECT_TRUE(readInto(record, R"({"NORVManualAUConfig":{"other":)" + std::string(depth, '[') +
                                     std::string(depth, ']') + R"(,"components":1}})"));
    EXPECT_EQ(1, record.components);
}

}  // namespace
