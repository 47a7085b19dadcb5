#include "webui/cgi/manual_scan.h"

#include "tests/unit/webui/settings_test.h"

#include <string>
#include <vector>

namespace {

class ManualScanPage : public SettingsTest {};

TEST_F(ManualScanPage, ProgressOfALargeScanDoesNotOverflow) {
    console.writeTemplate("ScanOptions/scan_progress.html", "__PROGRESS_PERCENT__ iProgressPercent=0");
    struct Case {
        std::string scanned;
        std::string total;
        std::string expected;
    };
    for (const Case& row : std::vector<Case>{
             {"7", "9", "77%"},
             {"7", "0", "0%"},
             {"2147483646", "2147483647", "99%"},
             {"", "", "0%"},
         }) {
        service.on(IPCMessage::GET, IPCMessage::MANUAL_SCAN_STATUS,
                   Answer::reply(1, {{"Status", "4"}, {"Scanned", row.scanned}, {"Total", row.total}}));
        const std::string number = row.expected.substr(0, row.expected.size() - 1);
        EXPECT_EQ(written([] { GetManualScanProgress(NORVConfig(), "1"); }),
                  "Content-type: text/html\n\n" + row.expected + " iProgressPercent=" + number);
    }
}

TEST_F(ManualScanPage, ASaveKeepsWhatTheFormDoesNotShow) {
    service.on(IPCMessage::GET, IPCMessage::MANUAL_SCAN_CONFIG,
               Answer::reply(1, {{"ManualScanConfig", R"({"NORVManualScanConfig":{"scanPaths":"/srv"}})"}}));
    service.on(IPCMessage::SET, IPCMessage::MANUAL_SCAN_CONFIG, Answer::reply(1));
    EXPECT_TRUE(SaveManualScanConfig(formOf("E1=ON22")));
    const std::vector<IPCMessage> requests = service.takeRequests();
    ASSERT_EQ(requests.size(), 2U);
    std::istringstream text(requests[1].value<std::string>("ManualScanConfig"));
    NORVManualScanConfig record;
    EXPECT_TRUE(text >> record);
    EXPECT_EQ(record.scanPaths, "/srv");
}

}  // namespace
