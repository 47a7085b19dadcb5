#include "norv/scan_config.h"
#include "tests/program/console_test.h"
#include "tests/program/scan_settings.h"

using Strings = std::vector<std::string>;

namespace {

const std::string DOTS =
    "<table border=\"0\" cellspacing=\"0\" width=\"100%\">          <tr>            <td width=\"100%\" "
    "background=\"../images/dotline.gif\"><img border=\"0\" src=\"../images/spacer(1).gif\" width=\"1\" "
    "height=\"1\"></td>          </tr>        </table>";
const std::string OFF = "Real-time Scan has been disabled.";
const std::string NO_MODULE =
    "The required Kernel Hook Module (KHM) for this Linux kernel version is not loaded. Load the KHM and try again.";

/// What the page shows beside the settings that all scans share.
struct Shown {
    std::string incoming = "false";
    std::string outgoing = "false";
    std::string on = "false";
    std::string disabled = "false";
    std::string modified = "false";
    std::string warning{};
    std::string line{};
    ShownScanSettings settings{};

    std::string text() const {
        return "IncomingStatusCheckbox=" + incoming + "\nOutgoingStatusCheckbox=" + outgoing +
               "\nbRealTimeScanCheckbox=" + on + "\nbRealTimeScanDisabled=" + disabled +
               "\nbIsConfigFileModified=" + modified + "\nwarning " + warning + "\nline " + line +
               "\nstamp 1700000000\n" + settings.text();
    }
};

class RealtimeScan : public ConsoleTest {
protected:
    RealtimeScan() {
        console.writeTemplate("ScanOptions/Real-time.html",
                              "IncomingStatusCheckbox=false\nOutgoingStatusCheckbox=false\n"
                              "bRealTimeScanCheckbox=false\nbRealTimeScanDisabled=false\nbIsConfigFileModified=false\n"
                              "warning __REALTIME_SCAN_DISABLED__\nline __DOT_LINE__\n"
                              "stamp __CONFIG_FILE_LAST_MODIFIED__\n" +
                                  SCAN_VARIABLES);
    }
    void store(uint32_t direction, bool running, bool module) {
        NORVRealtimeScanConfig record;
        record.scanDirection = direction;
        record.serviceRunning = running;
        record.kernelHookModuleLoaded = module;
        std::ostringstream text;
        text << record;
        defaults.realtimeScan = text.str();
        serve();
    }
    CgiResponse save(const std::string& fields) { return post("id=realtime_scan&mode=Save&E1=ON22&" + fields); }
    uint32_t savedDirection(const std::string& fields) {
        save("bOverWrite=true&" + fields);
        EXPECT_EQ(sentByHandler(), (Strings{"0/3", "1/3"}));
        return lastRecord<NORVRealtimeScanConfig>("RealtimeScanConfig").scanDirection;
    }
};

}  // namespace

TEST_F(RealtimeScan, TheDirectionsAreShown) {
    const std::vector<std::pair<uint32_t, Shown>> cases{
        {0, {.warning = OFF, .line = DOTS}},
        {1, {.incoming = "true", .on = "true"}},
        {2, {.outgoing = "true", .on = "true"}},
        {3, {.incoming = "true", .outgoing = "true", .on = "true"}},
        {4, {.on = "true"}},
    };
    for (const auto& [direction, shown] : cases) {
        SCOPED_TRACE(direction);
        store(direction, true, true);
        const CgiResponse response = get("id=realtime_scan");
        expectPage(response, shown.text());
        EXPECT_TRUE(response.logged(5, "ENTER save = false"));
        EXPECT_TRUE(response.logged(5, "display page"));
    }
}

TEST_F(RealtimeScan, WhatKeepsTheScanFromRunningIsSaid) {
    const std::string on = "true";
    const Shown stopped{.disabled = on, .warning = "Service is not running" + OFF, .line = DOTS};
    const Shown unloaded{.disabled = on, .warning = NO_MODULE, .line = DOTS};
    struct Case {
        uint32_t direction;
        bool running, module;
        Shown shown;
    };
    std::vector<Case> cases{{0, false, true, stopped}, {0, true, false, unloaded}, {0, false, false, unloaded},
                            {1, false, true, stopped}, {1, true, false, unloaded}, {1, false, false, unloaded}};
    for (Case& row : cases) {
        SCOPED_TRACE(testing::Message() << row.direction << row.running << row.module);
        if (row.direction == 1) row.shown.incoming = row.shown.on = on;
        store(row.direction, row.running, row.module);
        expectPage(get("id=realtime_scan"), row.shown.text());
    }
}

TEST_F(RealtimeScan, TheSwitchAndTheDirectionsAreSaved) {
    store(3, true, true);
    EXPECT_EQ(savedDirection(""), 0U);
    EXPECT_EQ(savedDirection("Scan_config5=&Scan_config3=ON&Scan_config4=ON"), 0U);
    EXPECT_EQ(savedDirection("Scan_config5=ON"), 1U) << "on, in no direction, would protect nothing";
    EXPECT_EQ(savedDirection("Scan_config5=ON&Scan_config3=0"), 1U);
    EXPECT_EQ(savedDirection("Scan_config5=OFF&Scan_config4=ON"), 2U);
    EXPECT_EQ(savedDirection("Scan_config5=ON&Scan_config3=ON&Scan_config4=ON"), 3U);
}

TEST_F(RealtimeScan, OnlyTheDirectionBitsAreTheForms) {
    store(0xfffffff4U, true, true);
    EXPECT_EQ(savedDirection("Scan_config5=ON&Scan_config4=ON"), 0xfffffff6U);
    EXPECT_EQ(savedDirection(""), 0xfffffff4U);
}

TEST_F(RealtimeScan, TheQuestionShowsWhatWasSubmitted) {
    const CgiResponse response = save("Scan_config5=ON&Scan_config4=ON&EnableKeenAct=1");
    expectPage(response, (Shown{.outgoing = "true", .on = "true", .modified = "true"}.text()));
}
