#include "webui/cgi/scheduled_scan.h"

#include "tests/unit/webui/settings_test.h"

#include <string>
#include <vector>

namespace {

class ScheduledScanPage : public SettingsTest {};

TEST_F(ScheduledScanPage, TheScheduleIsTakenFromTheForm) {
    struct Case {
        std::string form;
        uint32_t frequency;
        std::string time;
        int32_t weekDay;
        uint32_t monthDay;
    };
    for (const Case& row : std::vector<Case>{
             {"Scan_config5=ON&R2=V4&Time_hh=03&Time_minute=30&D2=Friday&D6=31", 2, "03:30:00", 5, 31},
             {"Scan_config5=ON&R2=V5&Time_hh=3&D2=friday&D6=x", 3, "3::00", 0, 0},
             {"Scan_config5=0&D6=-1", 4, "::00", 0, 4294967295},
             {"R2=V5&Time_hh=03&Time_minute=30&D2=Friday&D6=31", 0, "22:00:00", 1, 15},
         }) {
        NORVScheduledScanConfig record;
        record.frequency = 2;
        record.time = "22:00:00";
        record.weekDay = 1;
        record.monthDay = 15;
        ConstructScheduledScanConfig(formOf(row.form), record);
        EXPECT_EQ(record.frequency, row.frequency) << row.form;
        EXPECT_EQ(record.time, row.time) << row.form;
        EXPECT_EQ(record.weekDay, row.weekDay) << row.form;
        EXPECT_EQ(record.monthDay, row.monthDay) << row.form;
    }
}

TEST_F(ScheduledScanPage, TheScheduleIsShown) {
    NORVScheduledScanConfig record;
    record.time = "03:30:00";
    record.weekDay = 5;
    record.monthDay = 31;
    SetScheduledScanConfig(page, record);
    EXPECT_EQ(shown("bScheduleScanCheckbox=false"), "");
    EXPECT_EQ(shown("ScheduledFrequency=\"\""), "ScheduledFrequency=\"0\"");
    record.frequency = NORVScheduledScanConfig::MONTHLY;
    SetScheduledScanConfig(page, record);
    EXPECT_EQ(shown("bScheduleScanCheckbox=false"), "bScheduleScanCheckbox=true");
    EXPECT_EQ(shown("ScheduledFrequency=\"\""), "ScheduledFrequency=\"4\"");
    EXPECT_EQ(shown("ScheduledTime=\"\""), "ScheduledTime=\"03:30:00\"");
    EXPECT_EQ(shown("__SCHEDULED_WDAY__"), "5");
    EXPECT_EQ(shown("ScheduledMDay=\"\""), "ScheduledMDay=\"31\"");
}

}  // namespace
