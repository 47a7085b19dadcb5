#include "tests/program/scan_settings.h"
#include "norv/scan_config.h"
#include "tests/program/console_test.h"

#include <functional>

using Strings = std::vector<std::string>;

namespace {

using Record = NORVManualScanConfig;
using Change = std::function<void(Record&)>;

/// What all scan pages share, watched on the manual scan's page.
class ScanSettings : public ConsoleTest {
protected:
    ScanSettings() { console.writeTemplate("ScanOptions/Manual.html", SCAN_VARIABLES); }

    void store(const Record& record) {
        std::ostringstream text;
        text << record;
        defaults.manualScan = text.str();
        serve();
    }
    /// What the page shows of a record.
    std::string shown(const Change& change) {
        Record record;
        change(record);
        store(record);
        const CgiResponse response = get("id=manual_scan");
        EXPECT_EQ(response.process.status, 0) << response.process.errors;
        return response.body;
    }
    /// What a form makes of a record that is stored.
    Record saved(const std::string& form, const Record& before) {
        store(before);
        last = post("id=manual_scan&mode=Save&bOverWrite=true&" + form);
        sent();
        return lastRecord<Record>("ManualScanConfig");
    }
    CgiResponse last;
};

/// A record in which every field that the form could change differs from its default.
Record fullRecord() {
    Record record;
    record.includeExtList = "old";
    record.includeHVExtList = true;
    record.customActions = "Virus-1-0";
    record.scanCompressed = true;
    record.compressionLayer = 4;
    record.compressFileSizeLimit = 40;
    record.backupBeforeClean = true;
    record.scanPaths = "/srv/a;/srv/b";
    record.excludePatterns = "*.iso";
    record.scanWorkers = 3;
    return record;
}

void expectEqual(const Record& a, const Record& b) {
    EXPECT_EQ(a.includeExtList, b.includeExtList);
    EXPECT_EQ(a.includeHVExtList, b.includeHVExtList);
    EXPECT_EQ(a.zelscan, b.zelscan);
    EXPECT_EQ(a.customActions, b.customActions);
    EXPECT_EQ(a.universeAction, b.universeAction);
    EXPECT_EQ(a.scanCompressed, b.scanCompressed);
    EXPECT_EQ(a.compressionLayer, b.compressionLayer);
    EXPECT_EQ(a.compressFileSizeLimit, b.compressFileSizeLimit);
    EXPECT_EQ(a.backupBeforeClean, b.backupBeforeClean);
    EXPECT_EQ(a.scanPaths, b.scanPaths);
    EXPECT_EQ(a.excludePatterns, b.excludePatterns);
    EXPECT_EQ(a.scanWorkers, b.scanWorkers);
}

}  // namespace

TEST_F(ScanSettings, EveryStoredChoiceIsShown) {
    const std::vector<std::pair<Change, ShownScanSettings>> cases{
        {[](Record&) {}, {}},
        {[](Record& r) { r.zelscan = true; }, {.files = "2"}},
        {[](Record& r) { r.zelscan = true, r.includeExtList = "exe"; }, {.files = "2", .extensions = "exe"}},
        {[](Record& r) { r.includeExtList = "a\\b\"c"; }, {.files = "1", .extensions = "a\\\\b\\\"c"}},
        {[](Record& r) { r.includeExtList = "exe", r.includeHVExtList = true; },
         {.files = "1", .extensions = "exe", .alsoDefaults = "true"}},
        {[](Record& r) { r.includeHVExtList = true; }, {.alsoDefaults = "true"}},
        {[](Record& r) { r.backupBeforeClean = true; }, {.backup = "true"}},
        {[](Record& r) { r.scanCompressed = true, r.compressionLayer = 3, r.compressFileSizeLimit = 25; },
         {.compressed = "true", .layer = "2", .sizeLimit = "25"}},
        {[](Record& r) { r.compressionLayer = 1, r.compressFileSizeLimit = 4294967295U; },
         {.layer = "0", .sizeLimit = "4294967295"}},
        {[](Record& r) { r.compressionLayer = 0x80000000U; }, {.layer = "2147483647"}},
    };
    for (const auto& [change, settings] : cases) {
        SCOPED_TRACE(settings.text());
        EXPECT_EQ(shown(change), settings.text());
    }
}

TEST_F(ScanSettings, EveryStoredActionIsShownForEachTypeThatTheServiceKnows) {
    const std::vector<std::tuple<std::string, std::string, ShownScanSettings>> cases{
        {"Virus-3-2,Joke-0-0",
         "",
         {.keen = "0", .universal = "0", .actions = "Universe-5-4,Virus-5-4,Trojan-4-1,Joke-1-1"}},
        {"Joke-4-1,Gone-1-1,Virus-0-1",
         "",
         {.keen = "0", .universal = "0", .actions = "Universe-5-4,Virus-1-3,Trojan-4-1,Joke-2-3"}},
        {"", "1-0", {.keen = "0", .universal = "1", .actions = "Universe-3-1,Virus-5-4,Trojan-4-1,Joke-4-1"}},
        {"", "4-3", {.keen = "0", .universal = "1", .actions = "Universe-2-5,Virus-5-4,Trojan-4-1,Joke-4-1"}},
        {"Virus-3-2", "1-0", {.keen = "0", .universal = "0", .actions = "Universe-5-4,Virus-5-4,Trojan-4-1,Joke-4-1"}},
    };
    for (const auto& [custom, universe, settings] : cases) {
        SCOPED_TRACE(custom + "|" + universe);
        const auto change = [&c = custom, &u = universe](Record& r) { r.customActions = c, r.universeAction = u; };
        EXPECT_EQ(shown(change), settings.text());
    }
}

TEST_F(ScanSettings, EachTypeHasItsOwnDefaultAction) {
    defaults.virusTypes = "Virus;Trojan;Spyware;Joke;Test_Virus;Other;New";
    EXPECT_EQ(shown([](Record&) {}),
              ShownScanSettings{.actions = "Universe-5-4,Virus-5-4,Trojan-4-1,Spyware-4-1,Joke-4-1,Test_Virus-1-1,"
                                           "Other-5-4,New-5-4"}
                  .text());
    defaults.virusTypes = "Joke;";
    EXPECT_EQ(shown([](Record&) {}), ShownScanSettings{.actions = "Universe-5-4,Joke-4-1"}.text());
}

TEST_F(ScanSettings, WithoutVirusTypesThePageStillComes) {
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        serve();
        service.on(M::GET, M::VIRUS_TYPES, answer);
        const CgiResponse response = get("id=manual_scan");
        expectPage(response, ShownScanSettings{.actions = "Universe-5-4,"}.text());
        const auto is = [](const LogLine& line) {
            return line.severity == 2 && line.message == "return error!" && line.function == "GetVirusType";
        };
        EXPECT_EQ(std::count_if(response.log.begin(), response.log.end(), is), 1);
    }
}

TEST_F(ScanSettings, TheChoiceOfFilesIsSavedAsMade) {
    struct Case {
        const char* form;
        bool zelscan;
        const char* extensions;
        bool alsoDefaults;
    };
    for (const Case& row : {Case{"E1=ON22&C3=ON&SelectedExt=exe", false, "", false},
                            Case{"E1=ZelscanOn&C3=ON&SelectedExt=exe", true, "", false},
                            Case{"E1=ON23&SelectedExt=exe;+com%22", false, "exe; com\"", false},
                            Case{"E1=ON23&C3=0&SelectedExt=exe", false, "exe", true},
                            Case{"E1=ON23&C3=ON", false, "", true}, Case{"E1=ON23&SelectedExt=+", false, " ", false},
                            // Nothing chosen must not come to mean that nothing is scanned.
                            Case{"E1=ON23", true, "", false}, Case{"E1=ON23&C3=&SelectedExt=", true, "", false},
                            Case{"E1=on22", true, "", false}, Case{"", true, "", false}}) {
        SCOPED_TRACE(row.form);
        const Record record = saved(row.form, fullRecord());
        EXPECT_EQ(record.zelscan, row.zelscan);
        EXPECT_EQ(record.includeExtList, row.extensions);
        EXPECT_EQ(record.includeHVExtList, row.alsoDefaults);
    }
}

TEST_F(ScanSettings, ArchiveLimitsAreSavedOnlyWhenTheyAreNumbers) {
    struct Case {
        const char* form;
        bool compressed;
        uint32_t layers;
        uint32_t limit;
    };
    for (const Case& row :
         {Case{"Scan_config7=ON&Layers=5&T1=20", true, 5, 20}, Case{"Scan_config7=0&Layers=+3x&T1=%2B7", true, 3, 7},
          Case{"Scan_config7=ON", true, 4, 40}, Case{"Scan_config7=ON&Layers=0&T1=", true, 4, 40},
          Case{"Scan_config7=ON&Layers=x5&T1=+", true, 4, 40},
          Case{"Scan_config7=ON&Layers=99999999999&T1=4294967296", true, 4, 40},
          Case{"Scan_config7=ON&Layers=4294967295&T1=4294967295", true, 4294967295U, 4294967295U},
          Case{"Layers=5&T1=20", false, 4, 40}, Case{"Scan_config7=&Layers=5&T1=20", false, 4, 40}}) {
        SCOPED_TRACE(row.form);
        const Record record = saved(row.form, fullRecord());
        EXPECT_EQ(record.scanCompressed, row.compressed);
        EXPECT_EQ(record.compressionLayer, row.layers);
        EXPECT_EQ(record.compressFileSizeLimit, row.limit);
    }
}

TEST_F(ScanSettings, ABackupIsKeptOnlyWhenAskedForInSoManyWords) {
    EXPECT_TRUE(saved("Scan_BackupFilesBeforeClean=ON", Record()).backupBeforeClean);
    for (const char* form : {"", "Scan_BackupFilesBeforeClean=on", "Scan_BackupFilesBeforeClean=1"}) {
        EXPECT_FALSE(saved(form, fullRecord()).backupBeforeClean) << form;
    }
}

TEST_F(ScanSettings, ActionsAreSavedAsChosen) {
    struct Case {
        const char* form;
        const char* custom;
        const char* universe;
    };
    for (const Case& row : {
             Case{"EnableKeenAct=1&EnableUniAct=0&CustAction=Universe-5-4,Virus-5-4", "", ""},
             Case{"EnableKeenAct=0&EnableUniAct=1&CustAction=Universe-2-3,Virus-5-4", "", "4-1"},
             Case{"EnableUniAct=1&CustAction=Virus-5-4", "", "0-0"},
             Case{"EnableKeenAct=0&EnableUniAct=0&CustAction=Universe-5-4,Virus-5-4,Trojan-4-1", "Virus-3-2,Trojan-2-0",
                  ""},
             Case{"CustAction=Virus-1-2,Joke-3-4,Other-5-1", "Virus-0-4,Joke-1-2,Other-3-0", ""},
             Case{"", "", ""},
             // Entries that are none are dropped, so that no mark-up gets into the settings.
             Case{"CustAction=Virus-5-4,%22onload=x-1-1,Joke-a-b,,Trojan-4-1", "Virus-3-2,Trojan-2-0", ""},
             Case{"CustAction=Virus-5-4,Virus-1-1", "Virus-3-2", ""},
         }) {
        SCOPED_TRACE(row.form);
        const Record record = saved(row.form, fullRecord());
        EXPECT_EQ(record.customActions, row.custom);
        EXPECT_EQ(record.universeAction, row.universe);
    }
}

TEST_F(ScanSettings, ContradictingActionsLeaveThoseThatWereStored) {
    for (const char* form : {"EnableKeenAct=1&EnableUniAct=1", "EnableKeenAct=2", "EnableUniAct=-1&EnableKeenAct=0",
                             "EnableKeenAct=99999999999"}) {
        SCOPED_TRACE(form);
        const Record record = saved(std::string(form) + "&CustAction=Joke-1-1", fullRecord());
        EXPECT_EQ(record.customActions, "Virus-1-0");
        EXPECT_EQ(record.universeAction, "");
        EXPECT_THAT(complaints(last), testing::ElementsAre("1 Reached unexpected condition"));
        for (const LogLine& line : last.log) {
            if (line.severity == 1) {
                EXPECT_EQ(line.function + line.place, "");
            }
        }
    }
}

TEST_F(ScanSettings, WhatTheFormDoesNotShowIsKept) {
    Record expected = fullRecord();
    expected.includeExtList = "new";
    expectEqual(saved("E1=ON23&C3=ON&SelectedExt=new&Scan_config7=ON&Scan_BackupFilesBeforeClean=ON&"
                      "CustAction=Universe-5-4,Virus-3-1",
                      fullRecord()),
                expected);
}

TEST_F(ScanSettings, WhatThePageShowsComesBackTheSame) {
    Record record = fullRecord();
    record.customActions = "Virus-3-2,Trojan-2-0,Joke-0-4";
    store(record);
    EXPECT_EQ(get("id=manual_scan").body, (ShownScanSettings{.files = "1",
                                                             .extensions = "old",
                                                             .alsoDefaults = "true",
                                                             .backup = "true",
                                                             .compressed = "true",
                                                             .layer = "3",
                                                             .sizeLimit = "40",
                                                             .keen = "0",
                                                             .actions = "Universe-5-4,Virus-5-4,Trojan-4-1,Joke-1-2"}
                                               .text()));
    expectEqual(saved("E1=ON23&C3=ON&SelectedExt=old&Scan_config7=ON&Layers=4&T1=40&Scan_BackupFilesBeforeClean=ON&"
                      "EnableKeenAct=0&EnableUniAct=0&CustAction=Universe-5-4,Virus-5-4,Trojan-4-1,Joke-1-2",
                      record),
                record);
}
