#include "webui/cgi/realtime_scan.h"

#include "tests/unit/webui/settings_test.h"

#include <string>
#include <vector>

namespace {

class RealtimeScanPage : public SettingsTest {};

TEST_F(RealtimeScanPage, TheDirectionsAreTakenFromTheForm) {
    struct Case {
        std::string form;
        uint32_t stored;
        uint32_t expected;
    };
    for (const Case& row : std::vector<Case>{
             {"Scan_config5=ON&Scan_config3=ON&Scan_config4=ON", 0, 3},
             {"Scan_config5=ON&Scan_config3=ON", 2, 1},
             {"Scan_config5=ON&Scan_config4=0", 1, 2},
             {"Scan_config5=ON", 0, 1},
             {"Scan_config3=ON&Scan_config4=ON", 3, 0},
             {"Scan_config5=", 7, 4},
         }) {
        NORVRealtimeScanConfig record;
        record.scanDirection = row.stored;
        ConstructScanDirection(formOf(row.form), record);
        EXPECT_EQ(record.scanDirection, row.expected) << row.form;
    }
}

TEST_F(RealtimeScanPage, ItSaysWhyNothingIsScanned) {
    const std::string off = "Real-time Scan has been disabled.";
    const std::string noHook =
        "The required Kernel Hook Module (KHM) for this Linux kernel version is not loaded. Load the KHM and try "
        "again.";
    struct Case {
        uint32_t direction;
        bool running;
        bool hooked;
        std::string notice;
        std::string on;
        std::string impossible;
    };
    const std::string checked = "bRealTimeScanCheckbox=true";
    const std::string blocked = "bRealTimeScanDisabled=true";
    for (const Case& row : std::vector<Case>{
             {3, true, true, "", checked, ""},
             {0, true, true, off, "", ""},
             {4, true, true, "", checked, ""},
             {1, false, true, "Service is not running" + off, checked, blocked},
             {2, true, false, noHook, checked, blocked},
             {0, false, false, noHook, "", blocked},
         }) {
        CPageWrapper fresh(CPageWrapper::CONTENT_TYPE_HTML);
        NORVRealtimeScanConfig record;
        record.scanDirection = row.direction;
        record.serviceRunning = row.running;
        record.kernelHookModuleLoaded = row.hooked;
        SetScanDirection(fresh, record);
        EXPECT_EQ(shown(fresh, "__REALTIME_SCAN_DISABLED__"), row.notice);
        EXPECT_EQ(shown(fresh, "__DOT_LINE__").empty(), row.notice.empty());
        EXPECT_EQ(shown(fresh, "bRealTimeScanCheckbox=false"), row.on);
        EXPECT_EQ(shown(fresh, "bRealTimeScanDisabled=false"), row.impossible);
        EXPECT_EQ(shown(fresh, "IncomingStatusCheckbox=false").empty(), (row.direction & 1U) == 0);
        EXPECT_EQ(shown(fresh, "OutgoingStatusCheckbox=false").empty(), (row.direction & 2U) == 0);
    }
}

}  // namespace
