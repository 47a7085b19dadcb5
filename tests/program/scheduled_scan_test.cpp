#include "norv/scan_config.h"
#include "tests/program/console_test.h"
#include "tests/program/scan_settings.h"

using Strings = std::vector<std::string>;

namespace {

/// What the page shows beside the settings that all scans share.
struct Shown {
    std::string on = "false";
    std::string time{};
    std::string weekDay = "0";
    std::string monthDay = "1";
    std::string frequency = "0";
    std::string modified = "false";
    ShownScanSettings settings{};

    std::string text() const {
        return "bScheduleScanCheckbox=" + on + "\nScheduledTime=\"" + time + "\"\nweek day " + weekDay +
               "\nScheduledMDay=\"" + monthDay + "\"\nScheduledFrequency=\"" + frequency +
               "\"\nbIsConfigFileModified=" + modified + "\nstamp 1700000000\n[]\n" + settings.text();
    }
};

class ScheduledScan : public ConsoleTest {
protected:
    ScheduledScan() {
        console.writeTemplate("ScanOptions/Scheduled.html",
                              "bScheduleScanCheckbox=false\nScheduledTime=\"\"\nweek day __SCHEDULED_WDAY__\n"
                              "ScheduledMDay=\"\"\nScheduledFrequency=\"\"\nbIsConfigFileModified=false\n"
                              "stamp __CONFIG_FILE_LAST_MODIFIED__\n"
                              "[__SCHEDULED_SCAN_DISABLED____DOT_LINE__]\n" +
                                  SCAN_VARIABLES);
        NORVScheduledScanConfig record;
        record.frequency = 3;
        record.time = "01:02:00";
        record.weekDay = 5;
        record.monthDay = 31;
        record.scanPaths = "/srv";
        store(record);
    }
    void store(const NORVScheduledScanConfig& record) {
        std::ostringstream text;
        text << record;
        defaults.scheduledScan = text.str();
        serve();
    }
    CgiResponse save(const std::string& fields) { return post("id=scheduled_scan&mode=Save&E1=ON22&" + fields); }
    NORVScheduledScanConfig saved(const std::string& fields) {
        save("bOverWrite=true&" + fields);
        EXPECT_EQ(sentByHandler(), (Strings{"0/5", "1/5"}));
        return lastRecord<NORVScheduledScanConfig>("ScheduledScanConfig");
    }
};

}  // namespace

TEST_F(ScheduledScan, TheScheduleIsShown) {
    const Shown weekly{.on = "true", .time = "01:02:00", .weekDay = "5", .monthDay = "31", .frequency = "3"};
    expectPage(get("id=scheduled_scan"), weekly.text());
    store({});
    expectPage(get("id=scheduled_scan"), Shown{}.text());
    NORVScheduledScanConfig odd;
    odd.weekDay = -1;
    odd.monthDay = 4294967295U;
    odd.frequency = 7;
    store(odd);
    expectPage(get("id=scheduled_scan"),
               Shown{.on = "true", .weekDay = "-1", .monthDay = "4294967295", .frequency = "7"}.text());
}

TEST_F(ScheduledScan, AScheduleIsSavedAsChosen) {
    struct Case {
        const char* form;
        uint32_t frequency;
        const char* time;
        int32_t weekDay;
        uint32_t monthDay;
    };
    for (const Case& row :
         {Case{"Scan_config5=ON&R2=V4&Time_hh=03&Time_minute=30&D2=Monday&D6=17", 2, "03:30:00", 1, 17},
          Case{"Scan_config5=0&R2=V5&Time_hh=3&Time_minute=5&D2=Saturday&D6=+31st", 3, "3:5:00", 6, 31},
          Case{"Scan_config5=ON&R2=&Time_hh=&D2=sunday", 4, "::00", 0, 0},
          Case{"Scan_config5=ON&R2=v4&Time_hh=99&Time_minute=x&D2=4&D6=-1", 4, "99:x:00", 4, 4294967295U},
          Case{"Scan_config5=ON&D2=12&D6=99999999999", 4, "::00", 0, 2147483647U},
          // Switched off: what was set is there when it is switched on again.
          Case{"R2=V5&Time_hh=03&Time_minute=30&D2=Monday&D6=17", 0, "01:02:00", 5, 31},
          Case{"Scan_config5=&R2=V4", 0, "01:02:00", 5, 31}}) {
        SCOPED_TRACE(row.form);
        const NORVScheduledScanConfig record = saved(row.form);
        EXPECT_EQ(record.frequency, row.frequency);
        EXPECT_EQ(record.time, row.time);
        EXPECT_EQ(record.weekDay, row.weekDay);
        EXPECT_EQ(record.monthDay, row.monthDay);
        EXPECT_EQ(record.scanPaths, "/srv");
    }
}

TEST_F(ScheduledScan, TheQuestionShowsWhatWasSubmitted) {
    const Shown asked{
        .on = "true", .time = "23:59:00", .weekDay = "2", .monthDay = "2", .frequency = "2", .modified = "true"};
    expectPage(save("Scan_config5=ON&R2=V4&Time_hh=23&Time_minute=59&D2=Tuesday&D6=2&EnableKeenAct=1"), asked.text());
}
