#include "service/settings/settings_check.h"

#include "norv/protocol/scans.h"
#include "service/base/limits.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace keldra {
namespace {

NORVScheduledScanConfig scheduled() {
    NORVScheduledScanConfig record;
    record.frequency = NORVScheduledScanConfig::WEEKLY;
    record.time = "2:30:00";
    record.scanPaths = "/srv";
    return record;
}

TEST(SettingsCheckTest, WhatAPageSendsIsBroughtIntoItsRange) {
    NORVScheduledScanConfig record = scheduled();
    record.compressionLayer = 4294967295U;
    record.compressFileSizeLimit = 4294967295U;
    record.weekDay = 9;
    record.monthDay = static_cast<uint32_t>(-3);
    record.scanPaths = "/srv//share/../a/;/";
    record.includeExtList = "exe;\r\ncom";
    EXPECT_EQ(checkSettings(record), "");
    EXPECT_EQ(record.compressionLayer, 20U);
    EXPECT_EQ(record.compressFileSizeLimit, 2047U);
    EXPECT_EQ(record.weekDay, 6);
    EXPECT_EQ(record.monthDay, 1U);
    EXPECT_EQ(record.time, "02:30:00");
    EXPECT_EQ(record.scanPaths, "/srv/a;/");
    EXPECT_EQ(record.includeExtList, "exe;  com");
}

TEST(SettingsCheckTest, WhatCannotBeActedOnIsRefused) {
    using Change = std::function<void(NORVScheduledScanConfig&)>;
    const std::vector<std::pair<const char*, Change>> cases{
        {"frequency", [](auto& record) { record.frequency = 1; }},
        {"frequency beyond", [](auto& record) { record.frequency = 5; }},
        {"no time", [](auto& record) { record.time = ""; }},
        {"hour", [](auto& record) { record.time = "24:00:00"; }},
        {"minute", [](auto& record) { record.time = "1:60:00"; }},
        {"text in the time", [](auto& record) { record.time = "1:\";alert(1);\":00"; }},
        {"no minute", [](auto& record) { record.time = "12"; }},
        {"sign", [](auto& record) { record.time = "-1:00:00"; }},
        {"relative folder", [](auto& record) { record.scanPaths = "srv"; }},
        {"relative exclude", [](auto& record) { record.excludePaths = "/a;b"; }},
        {"control character", [](auto& record) { record.excludePatterns = "a\x01"; }},
        {"NUL", [](auto& record) { record.scanPaths = std::string("/a\0b", 4); }},
        {"endless text", [](auto& record) { record.includeExtList = std::string(300000, 'a'); }},
        {"universe action", [](auto& record) { record.universeAction = "5-0"; }},
        {"universe action with type", [](auto& record) { record.universeAction = "Virus-1-2"; }},
        {"unknown action", [](auto& record) { record.customActions = "Virus-9-1"; }},
        {"long action", [](auto& record) { record.customActions = "Virus-1-22"; }},
        {"nothing usable", [](auto& record) { record.customActions = "\"><script>"; }},
    };
    for (const auto& [name, change] : cases) {
        NORVScheduledScanConfig record = scheduled();
        change(record);
        EXPECT_NE(checkSettings(record), "") << name;
    }
}

TEST(SettingsCheckTest, ActionsOfRealTypesAreKeptInTheirOrder) {
    NORVManualScanConfig record;
    record.customActions = "Virus-3-2,Test_Virus-0-0,bad type!-1-1,Joke2-1-1,Trojan-2-0";
    EXPECT_EQ(checkSettings(record), "");
    EXPECT_EQ(record.customActions, "Virus-3-2,Test_Virus-0-0,Trojan-2-0");
}

TEST(SettingsCheckTest, ASwitchedOffScheduleNeedsNoTimeButStoresNoNonsense) {
    NORVScheduledScanConfig record = scheduled();
    record.frequency = NORVScheduledScanConfig::OFF;
    record.time = "";
    EXPECT_EQ(checkSettings(record), "");
    record.time = "\"<b>";
    EXPECT_NE(checkSettings(record), "");
}

TEST(SettingsCheckTest, UpdatesRunAtLeastEveryOnceInAWhile) {
    NORVScheduledAUConfig record;
    record.kind = NORVScheduledAUConfig::DAILY;
    record.components = 0xFF;
    record.period = 0;
    record.time = "3:5:00";
    EXPECT_EQ(checkSettings(record), "");
    EXPECT_EQ(record.period, 1);
    EXPECT_EQ(record.components, 0x23);
    EXPECT_EQ(record.time, "03:05:00");
    record.kind = NORVScheduledAUConfig::WEEKLY;
    record.period = 2147483647;
    EXPECT_EQ(checkSettings(record), "");
    EXPECT_EQ(record.period, 53);
    record.kind = 4;
    EXPECT_NE(checkSettings(record), "");
}

TEST(SettingsCheckTest, WhatTheServiceFindsOutByItselfIsNotStored) {
    NORVRealtimeScanConfig record;
    record.scanDirection = 7;
    record.serviceRunning = record.kernelHookModuleLoaded = true;
    record.scanTimeLimit = 0;
    EXPECT_EQ(checkSettings(record), "");
    EXPECT_EQ(record.scanDirection, 3U);
    EXPECT_FALSE(record.serviceRunning || record.kernelHookModuleLoaded);
    EXPECT_EQ(record.scanTimeLimit, 1U);
}

TEST(SettingsCheckTest, MoreThanWorksIsRefusedInsteadOfBeingCutInSilence) {
    NORVManualScanConfig manual;
    manual.scanWorkers = protocol::MAX_WORKERS;
    EXPECT_EQ(checkSettings(manual), "");
    ++manual.scanWorkers;
    EXPECT_EQ(checkSettings(manual), "At most 32 files can be scanned at a time.");
    NORVRealtimeScanConfig realtime;
    realtime.scanTimeLimit = MAX_SCAN_TIME_LIMIT + 1;
    EXPECT_EQ(checkSettings(realtime), "A file can be kept waiting for 300 seconds at most.");
}

}  // namespace
}  // namespace keldra
