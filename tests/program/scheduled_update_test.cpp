#include "norv/au_config.h"
#include "tests/program/console_test.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Strings = std::vector<std::string>;

namespace {

class ScheduledUpdate : public ConsoleTest {
protected:
    ScheduledUpdate() {
        console.writeTemplate("Update/Update_Scheduled.html",
                              "sLastModifiedDate=0\nbUpdateEngine=false bUpdatePattern=false "
                              "bUpdateSpywarePattern=false\nbEnableScheduledUpdate=false\nSchedule=\"\"\n"
                              "ScheduledTime=\"\"\nScheduledWDay=\"\"\nsRandomlizedUpdate=\"\"\n"
                              "__SCAN_ENGINE_VERSION__ __ENGINE_LAST_UPDATE__ __VIRUS_PATTERN_VERSION__ "
                              "__PATTERN_LAST_UPDATE__ __SPYWARE_PATTERN_VERSION__ __SPYWARE_PATTERN_LAST_UPDATE__\n");
        defaults.scheduledUpdate = R"({"NORVScheduledAUConfig":)"
                                   R"({"components":255,"kind":2,"period":9,"time":"01:02:00","weekDay":5}})";
        serve();
    }
    CgiResponse show(const std::string& values) {
        std::string group = "<Group Type=\"Varnel\">";
        std::istringstream pairs(values);
        for (std::string name, value; pairs >> name >> value;) {
            group += "<P Name=\"" + name + "\" Value=\"" + value + "\"/>";
        }
        defaults.document = document(group + "</Group>");
        serve();
        return get("id=scheduled_update");
    }
    CgiResponse save(const std::string& fields) { return post("id=scheduled_update&mode=Save&" + fields); }
    NORVScheduledAUConfig saved(const std::string& fields) {
        save(fields);
        EXPECT_EQ(sentByHandler(), (Strings{"0/23", "1/23"}));
        EXPECT_EQ(requests.back().params.size(), 1U);
        return lastRecord<NORVScheduledAUConfig>("ScheduledAUConfig");
    }
};

const std::string SUCCESS = "success\nScheduled Update\n" + SAVED + "\n\n./scanoption.cgi?id=scheduled_update\n";
const std::string FAILURE = "failure\nScheduled Update\nUnable to apply the new scheduled update settings.\n" +
                            NOT_RESPONDING + "\n./scanoption.cgi?id=scheduled_update\n";

}  // namespace

TEST_F(ScheduledUpdate, WhatIsInstalledAndPlannedIsShown) {
    const CgiResponse response = show(
        "Schedule 2-3 ScheduledTime 03:30:00 ScheduledWDay 4 RandomizedUpdate 1 ScheduledComponents 34 "
        "ManualComponents 1 EngineVersion 1.0.9 EngineLastUpdate mon VirusPatternVersion 27 "
        "VirusPatternLastUpdate tue SpywarePatternVersion 5 SpywarePatternLastUpdate fri");
    expectPage(response,
               "sLastModifiedDate=1700000000\nbUpdateEngine=true bUpdatePattern=false bUpdateSpywarePattern=true\n"
               "bEnableScheduledUpdate=true\nSchedule=\"2-3\"\nScheduledTime=\"03:30:00\"\nScheduledWDay=\"4\"\n"
               "sRandomlizedUpdate=\"1\"\n1.0.9 mon 27 tue 5 fri\n");
    EXPECT_THAT(complaints(response), IsEmpty());
    EXPECT_THAT(sentByHandler(), IsEmpty());
}

TEST_F(ScheduledUpdate, WhatIsNotConfiguredIsShownAsOffAndEmpty) {
    const CgiResponse response = show("Schedule 0-0 VirusPatternVersion 27");
    expectPage(response,
               "sLastModifiedDate=1700000000\nbUpdateEngine=false bUpdatePattern=false bUpdateSpywarePattern=false\n"
               "bEnableScheduledUpdate=false\nSchedule=\"0-0\"\nScheduledTime=\"\"\nScheduledWDay=\"\"\n"
               "sRandomlizedUpdate=\"\"\n  27   \n");
    EXPECT_THAT(complaints(response),
                ElementsAre("2 Cannnot find matching category and name [Varnel,ScheduledTime]",
                            "2 Cannnot find matching category and name [Varnel,ScheduledWDay]",
                            "2 Cannnot find matching category and name [Varnel,RandomizedUpdate]"));
}

TEST_F(ScheduledUpdate, AScheduleIsSavedAsChosen) {
    struct Case {
        const char* form;
        int components;
        int32_t kind, period;
        const char* time;
        int32_t weekDay;
    };
    const std::string times = "&Time=3&Time_min=30&D2=Tuesday&DAILY_PERIOD=4&WEEKLY_PERIOD=6";
    for (const Case& row :
         {Case{"cbEnableScheduledUpdate=ON&R2=V4&VirusPattern=0", 221, 1, 0, "3:30:00", 2},
          Case{"cbEnableScheduledUpdate=off&R2=V5&ScanEngine=x", 222, 2, 4, "3:30:00", 2},
          Case{"cbEnableScheduledUpdate=1&R2=V6&SpywarePattern=x", 252, 3, 6, "3:30:00", 2},
          Case{"cbEnableScheduledUpdate=1&VirusPattern=1&ScanEngine=1&SpywarePattern=1", 255, 3, 6, "3:30:00", 2},
          // Switched off: what was set is there when it is switched on again.
          Case{"cbEnableScheduledUpdate=OFF&R2=V4", 255, 0, 9, "01:02:00", 5},
          Case{"cbEnableScheduledUpdate=&R2=V4", 255, 0, 9, "01:02:00", 5}, Case{"R2=V4", 255, 0, 9, "01:02:00", 5}}) {
        SCOPED_TRACE(row.form);
        const NORVScheduledAUConfig record = saved(row.form + times);
        EXPECT_EQ(record.components, row.components);
        EXPECT_EQ(record.kind, row.kind);
        EXPECT_EQ(record.period, row.period);
        EXPECT_EQ(record.time, row.time);
        EXPECT_EQ(record.weekDay, row.weekDay);
    }
    const NORVScheduledAUConfig odd =
        saved("cbEnableScheduledUpdate=ON&R2=V5&DAILY_PERIOD=99999999999&Time=x%3Ay&D2=no");
    EXPECT_EQ(odd.period, 2147483647);
    EXPECT_EQ(odd.time, "x:y::00");
    EXPECT_EQ(odd.weekDay, 0);
    EXPECT_EQ(saved("cbEnableScheduledUpdate=ON&WEEKLY_PERIOD=-1x").period, -1);
    EXPECT_TRUE(save("cbEnableScheduledUpdate=ON&D2=Monday").logged(5, "sWeekDay = Monday"));
}

TEST_F(ScheduledUpdate, ASaveIsReportedAsTheServiceAnsweredIt) {
    expectPage(save("cbEnableScheduledUpdate=ON"), SUCCESS);
    for (const char* backup : {"", "diskfull", "OK"}) {
        service.on(M::SET, M::SCHEDULED_UPDATE_CONFIG, Answer::reply(1, {{"BackupResult", backup}}));
        expectPage(save("cbEnableScheduledUpdate=ON"), SUCCESS);
    }
    service.on(M::SET, M::SCHEDULED_UPDATE_CONFIG, Answer::reply(1, {{"BackupResult", "DiskFull"}}));
    expectPage(save("cbEnableScheduledUpdate=ON"),
               "disk full\nScheduled Update\n" + SAVED +
                   "\nUnable to back up the configuration file.\nIt may be corrupted or your system disk may have no "
                   "space to back up files.\n./scanoption.cgi?id=scheduled_update\n");
    for (const auto& [name, answer] : notAccepted()) {
        SCOPED_TRACE(name);
        service.on(M::SET, M::SCHEDULED_UPDATE_CONFIG, answer);
        expectPage(save("cbEnableScheduledUpdate=ON"), FAILURE);
    }
    service.on(M::SET, M::SCHEDULED_UPDATE_CONFIG, Answer::reply(2, {{"BackupResult", "DiskFull"}}));
    expectPage(save("cbEnableScheduledUpdate=ON"), FAILURE);
}

TEST_F(ScheduledUpdate, ARecordThatCannotBeReadIsNotOverwritten) {
    std::vector<std::pair<std::string, Answer>> answers = brokenExchanges();
    answers.emplace_back("refused", Answer::refuse(2));
    answers.emplace_back("malformed", Answer::reply(1, {{"ScheduledAUConfig", "{"}}));
    for (const auto& [name, answer] : answers) {
        SCOPED_TRACE(name);
        service.on(M::GET, M::SCHEDULED_UPDATE_CONFIG, answer);
        expectPage(save("cbEnableScheduledUpdate=ON"), FAILURE);
        EXPECT_EQ(sentByHandler(), Strings{"0/23"});
    }
    // Any other answer will do, also one without a record.
    for (const int32_t result : {0, 1, 3}) {
        service.on(M::GET, M::SCHEDULED_UPDATE_CONFIG, Answer::refuse(result));
        EXPECT_EQ(saved("cbEnableScheduledUpdate=ON&VirusPattern=1&R2=V4&Time=1&Time_min=2").components, 1);
    }
}
