#include "service/realtime/realtime_scan.h"

#include "tests/harness/log_file.h"
#include "tests/unit/service/realtime/own_file_system.h"
#include "tests/unit/service/scan_fixture.h"

#include <array>
#include <atomic>
#include <fstream>
#include <future>

using namespace keldra;

namespace {

/// Finds files that begin with "EICAR" and fails on those that begin with "CRASH".
class MadeUpEngine : public ScanEngine {
public:
    ScanResult scan(int fd, const std::string&, const ScanOptions&, std::stop_token) override {
        ++scans;
        std::array<char, 5> head{};
        const ssize_t length = pread(fd, head.data(), head.size(), 0);
        const std::string beginning(head.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        if (current.database != EngineState::Database::LOADED) return {Verdict::FAILED, "", "no signatures"};
        if (beginning == "LIMIT") return {Verdict::NOT_FULLY_SCANNED, "", "a limit was met"};
        if (beginning == "CRASH") return {Verdict::FAILED, "", "the scanner crashed"};
        return {beginning == "EICAR" ? Verdict::INFECTED : Verdict::CLEAN, "Win.Virus.X", ""};
    }
    EngineState state() const override { return current; }
    bool load() override { return true; }
    void reload(std::function<void(bool)>) override {}

    EngineState current;
    std::atomic<int> scans{0};
};

class RealtimeScanTest : public OwnFileSystem {
protected:
    void SetUp() override {
        OwnFileSystem::SetUp();
        ASSERT_TRUE(quarantine_.open());
        engine_.current.database = EngineState::Database::LOADED;
        engine_.current.guarding = true;
        record_.scanDirection = NORVRealtimeScanConfig::INCOMING;
        record_.universeAction = "2-2";
        record_.scanPaths = shared();
    }
    void TearDown() override {
        scan_.stop();
        OwnFileSystem::TearDown();
    }
    void configure() {
        NORVConfig config;
        storeRecord(config, record_);
        scan_.configure(config);
    }

    MadeUpEngine engine_;
    NORVRealtimeScanConfig record_;
    Quarantine quarantine_{folder_ / "store", folder_ / "trusted"};
    Actions actions_{quarantine_};
    std::atomic<int> incomplete_{0};
    RealtimeScan scan_{engine_, actions_, {folder_ / "store"}, [this](const RealtimeReport& report) {
                           if (report.result.verdict == Verdict::NOT_FULLY_SCANNED) ++incomplete_;
                       }};
};

TEST_F(RealtimeScanTest, RunningIsSaidOnlyOfWhatGuards) {
    EXPECT_FALSE(scan_.state().wanted);
    EXPECT_TRUE(scan_.state().serviceRuns()) << "switched off";
    configure();
    EXPECT_TRUE(scan_.state().guarding);
    EXPECT_EQ(scan_.state().message, "");

    engine_.current.guarding = false;
    EXPECT_EQ(scan_.state().trouble, RealtimeState::Trouble::SCANNER);
    engine_.current.database = EngineState::Database::NONE;
    EXPECT_EQ(scan_.state().trouble, RealtimeState::Trouble::NO_SIGNATURES);
    engine_.current.reloading = true;
    EXPECT_EQ(scan_.state().trouble, RealtimeState::Trouble::LOADING);
    EXPECT_EQ(scan_.state().message, "Not guarding yet: the signatures are being loaded.");
    EXPECT_FALSE(scan_.state().guarding || scan_.state().serviceRuns());
    for (const bool deny : {false, true}) {
        record_.denyOnTimeout = deny;
        configure();
        EXPECT_EQ(openElsewhere(shared() / "clean.txt"), deny ? EPERM : 0);
    }
}

TEST_F(RealtimeScanTest, WhatTheEngineFailsOnIsAnsweredLikeATimeOutAndLeavesOthersAlone) {
    writeFile(shared() / "crash", "CRASH");
    for (const bool deny : {false, true}) {
        record_.denyOnTimeout = deny;
        configure();
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(openElsewhere(shared() / "crash"), deny ? EPERM : 0);
            writeFile(shared() / "bad.txt", "EICAR");
            EXPECT_NE(openElsewhere(shared() / "bad.txt"), 0);
        }
    }
}

TEST_F(RealtimeScanTest, WhatIsNotFullyScannedIsToldOnceAndNoFloodOfItFillsTheJournal) {
    configure();
    for (int i = 0; i < 250; ++i) {
        const std::filesystem::path file = shared() / ("limit" + std::to_string(i / 2));
        if (i % 2 == 0) writeFile(file, "LIMIT");
        EXPECT_EQ(openElsewhere(file), 0);
    }
    EXPECT_EQ(incomplete_, 125);
    for (int i = 0; i < 200; ++i) {
        writeFile(shared() / ("more" + std::to_string(i)), "LIMIT");
        openElsewhere(shared() / ("more" + std::to_string(i)));
    }
    EXPECT_EQ(incomplete_, 200);
}

TEST_F(RealtimeScanTest, OneFindIsPutAwayAndReportedOnceHoweverManyOpenIt) {
    setenv("KELDRA_LOG", (root() / "elsewhere/log").c_str(), 1);
    initLog("test", 0, NORV_LOG_INFO);
    configure();
    std::vector<std::future<int>> opened;
    for (int i = 0; i < 8; ++i)
        opened.push_back(std::async(std::launch::async, [this] { return openElsewhere(shared() / "bad.txt"); }));
    for (auto& each : opened) EXPECT_NE(each.get(), 0);
    EXPECT_TRUE(waitFor([this] { return quarantine_.size() == 1; }));
    scan_.stop();
    int reports = 0;
    for (const LogLine& line : readLog(root() / "elsewhere/log")) {
        if (line.message.find("moved to quarantine") != std::string::npos) ++reports;
        EXPECT_EQ(line.message.find("failed"), std::string::npos) << line;
        EXPECT_EQ(line.message.find("gone"), std::string::npos) << line;
    }
    EXPECT_EQ(reports, 1);
    unsetenv("KELDRA_LOG");
}

TEST_F(RealtimeScanTest, WhatAnotherTaskFoundAndPutAwayIsNotReadFromThere) {
    writeFile(shared() / "bad.skipped", "EICAR");
    record_.excludePatterns = "*.skipped";
    configure();
    int meanwhile = 0;
    actions_.onBegin([&](const ScannedFile& file) {
        const auto action = scan_.beginAction(file.file.get(), file.path);
        meanwhile = openElsewhere(file.path);
        return action;
    });
    EXPECT_EQ(openElsewhere(shared() / "bad.skipped"), 0);
    const ScannedFile file = opened(shared() / "bad.skipped");
    const ScanResult find{.verdict = Verdict::INFECTED, .signature = "Win.Virus.X", .detail = {}};
    EXPECT_EQ(actions_.perform(file, find, record_, "manual").performed, Action::QUARANTINE);
    EXPECT_EQ(meanwhile, EPERM);
    int refused = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_ / "store"))
        if (entry.is_regular_file() && openElsewhere(entry.path()) == EPERM) ++refused;
    EXPECT_EQ(refused, 1);
}

TEST_F(RealtimeScanTest, NewSettingsHoldForWhatWasCleanUnderTheOldOnes) {
    writeFile(shared() / "bad.skipped", "EICAR");
    record_.excludePatterns = "*.skipped";
    configure();
    EXPECT_EQ(openElsewhere(shared() / "bad.skipped"), 0);
    EXPECT_EQ(engine_.scans, 0);
    std::this_thread::sleep_for(3s);  // until files count as settled
    for (int i = 0; i < 3; ++i) EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    EXPECT_EQ(engine_.scans, 1) << "remembered";
    record_.excludePatterns = "*.other";
    configure();
    EXPECT_EQ(openElsewhere(shared() / "bad.skipped"), EPERM);
    EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    EXPECT_EQ(engine_.scans, 3);
}

}  // namespace
