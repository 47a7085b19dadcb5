#include "webui/cgi/au_config.h"

#include "tests/unit/webui/settings_test.h"

#include <string>
#include <utility>
#include <vector>

namespace {

class Updates : public SettingsTest {
protected:
    /// The record that a save sends, or nothing when it sends none.
    NORVScheduledAUConfig saved(const std::string& form) {
        service.takeRequests();
        result = SaveScheduledUpdateConfig(formOf(form));
        NORVScheduledAUConfig record;
        for (const IPCMessage& request : service.takeRequests()) {
            if (request.operation != IPCMessage::SET) continue;
            std::istringstream text(request.value<std::string>("ScheduledAUConfig"));
            EXPECT_TRUE(text >> record);
        }
        return record;
    }
    void serveRecord(const Answer& read, const Answer& save) {
        service.on(IPCMessage::GET, IPCMessage::SCHEDULED_UPDATE_CONFIG, read);
        service.on(IPCMessage::SET, IPCMessage::SCHEDULED_UPDATE_CONFIG, save);
    }

    const Answer stored =
        Answer::reply(1, {{"ScheduledAUConfig", R"({"NORVScheduledAUConfig":{"components":12,"kind":1,"period":9,)"
                                                R"("time":"22:00:00","weekDay":4}})"}});
    SET_UPDATE_OPTION_RESULT result = SET_UPDATE_OK;
};

TEST_F(Updates, OnlyDigitsAndUnderscoresNameAnUpdate) {
    for (const char* name : {"123", "_", "1_2"}) EXPECT_TRUE(isValidRequestID(name)) << name;
    for (const char* name : {"", "12a", "1.2", "../1", " 1", "1\n"}) EXPECT_FALSE(isValidRequestID(name)) << name;
    EXPECT_FALSE(isValidRequestID(std::string("1\0", 2)));
}

TEST_F(Updates, TheInstalledVersionsAndTheSelectionAreShown) {
    NORVAUConfig au;
    au.engineVersion = "1.2";
    au.spywarePatternLastUpdate = "today";
    au.manual.components = UPDATE_VIRUS_PATTERN;
    au.scheduled.components = UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;
    CPageWrapper scheduled(CPageWrapper::CONTENT_TYPE_HTML);
    FillUpdateInformation(scheduled, au, UPDATE_SCHEDULED);
    EXPECT_EQ(shown(scheduled, "bUpdateEngine=false"), "bUpdateEngine=true");
    EXPECT_EQ(shown(scheduled, "bUpdatePattern=false"), "");
    EXPECT_EQ(shown(scheduled, "bUpdateSpywarePattern=false"), "bUpdateSpywarePattern=true");
    EXPECT_EQ(shown(scheduled, "__SCAN_ENGINE_VERSION__"), "1.2");
    EXPECT_EQ(shown(scheduled, "__SPYWARE_PATTERN_LAST_UPDATE__"), "today");
    FillUpdateInformation(page, au, UPDATE_MANUAL);
    EXPECT_EQ(shown("bUpdateEngine=false"), "");
    EXPECT_EQ(shown("bUpdatePattern=false"), "bUpdatePattern=true");
}

TEST_F(Updates, TheScheduleIsTakenFromTheForm) {
    struct Case {
        std::string form;
        uint8_t components;
        int32_t kind;
        int32_t period;
        std::string time;
        int32_t weekDay;
    };
    serveRecord(stored, Answer::reply(1));
    const std::string periods = "&DAILY_PERIOD=2&WEEKLY_PERIOD=3";
    for (const Case& row : std::vector<Case>{
             {"cbEnableScheduledUpdate=ON&R2=V4&Time=3&Time_min=30&D2=Monday&VirusPattern=0" + periods, 13, 1, 0,
              "3:30:00", 1},
             {"cbEnableScheduledUpdate=1&R2=V5&SpywarePattern=1&ScanEngine=1" + periods, 46, 2, 2, "::00", 0},
             {"cbEnableScheduledUpdate=off" + periods, 12, 3, 3, "::00", 0},
             {"cbEnableScheduledUpdate=OFF&R2=V5&VirusPattern=1&Time=3" + periods, 12, 0, 9, "22:00:00", 4},
             {"R2=V5" + periods, 12, 0, 9, "22:00:00", 4},
         }) {
        const NORVScheduledAUConfig record = saved(row.form);
        EXPECT_EQ(result, SET_UPDATE_OK) << row.form;
        EXPECT_EQ(record.components, row.components) << row.form;
        EXPECT_EQ(record.kind, row.kind) << row.form;
        EXPECT_EQ(record.period, row.period) << row.form;
        EXPECT_EQ(record.time, row.time) << row.form;
        EXPECT_EQ(record.weekDay, row.weekDay) << row.form;
    }
}

TEST_F(Updates, AScheduleCountsAsSavedOnlyWhenTheServiceSaysSo) {
    const Answer yes = Answer::reply(1);
    struct Case {
        Answer read;
        Answer save;
        SET_UPDATE_OPTION_RESULT expected;
    };
    for (const Case& row : std::vector<Case>{
             {stored, Answer::reply(1, {{"BackupResult", "DiskFull"}}), SET_UPDATE_DISK_FULL},
             {stored, Answer::reply(1, {{"BackupResult", "Diskfull"}}), SET_UPDATE_OK},
             {stored, Answer::reply(0, {{"BackupResult", "DiskFull"}}), SET_UPDATE_FAILED},
             {stored, Answer::hangUp(), SET_UPDATE_FAILED},
             {Answer::reply(0), yes, SET_UPDATE_OK},
             {Answer::reply(3), yes, SET_UPDATE_OK},
             {Answer::refuse(2), yes, SET_UPDATE_FAILED},
             {Answer::hangUp(), yes, SET_UPDATE_FAILED},
             {Answer::reply(1, {{"ScheduledAUConfig", "{"}}), yes, SET_UPDATE_FAILED},
         }) {
        serveRecord(row.read, row.save);
        EXPECT_EQ(SaveScheduledUpdateConfig(formOf("")), row.expected);
    }
}

TEST_F(Updates, ARefusedUpdateIsMarkedInItsFileAndAnInvalidOneNowhere) {
    const NORVConfig config = configurationOf("<Document><Group Type=\"Configuration\"><P Name=\"VarPath\" Value=\"" +
                                              console.var().string() + "\"/></Group></Document>");
    service.on(IPCMessage::START, IPCMessage::MANUAL_UPDATE, Answer::refuse(2));
    EXPECT_EQ(ExecuteManualUpdate(config, NORVManualAUConfig(), "42"), SET_UPDATE_FAILED);
    EXPECT_EQ(console.read("var/progress_42.txt"), "DUPLICATE");
    service.takeRequests();
    EXPECT_EQ(ExecuteManualUpdate(config, NORVManualAUConfig(), "4 2"), SET_UPDATE_FAILED);
    EXPECT_TRUE(service.takeRequests().empty());
    EXPECT_EQ(logged(2), std::vector<std::string>{"Invalid request id [4 2]"});
    EXPECT_EQ(logged(1), std::vector<std::string>{"Execute Manual Scan Failed"});
}

}  // namespace
