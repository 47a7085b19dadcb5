#include "service/scanning/scan_jobs.h"

#include "norv/ipc_message.h"
#include "norv/path_list.h"
#include "service/server/handlers.h"
#include "service/settings/configuration_store.h"
#include "tests/unit/service/scan_fixture.h"

#include <atomic>
#include <condition_variable>
#include <thread>

namespace keldra {
namespace {

namespace fs = std::filesystem;
constexpr int PATIENCE = 30000;  // milliseconds

class TestClock : public Clock {
public:
    std::int64_t now() const override { return seconds; }
    std::int64_t steadyMilliseconds() const override { return milliseconds; }
    std::atomic<std::int64_t> seconds = 1000000000;
    std::atomic<std::int64_t> milliseconds = 0;
};

/// An engine that lets a test hold the scan of a file up.
class GatedEngine : public ScanEngine {
public:
    ScanResult scan(int, const std::string&, const ScanOptions&, std::stop_token stop) override {
        ++scans;
        if (throws) throw std::bad_alloc();
        std::unique_lock lock(mutex_);
        changed_.wait(lock, stop, [this] { return open_ || admitted_ > 0; });
        --admitted_;
        return {stop.stop_requested() ? Verdict::NOT_FULLY_SCANNED : verdict, "", "gated"};
    }
    EngineState state() const override {
        EngineState state;
        state.database = database;
        return state;
    }
    bool load() override { return true; }
    void reload(std::function<void(bool)>) override {}
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void close() {
        const std::lock_guard lock(mutex_);
        open_ = false;
    }
    void letOneThrough() {
        const std::lock_guard lock(mutex_);
        admitted_ = 1;
        changed_.notify_all();
    }

    std::atomic<int> scans = 0;
    bool throws = false;
    Verdict verdict = Verdict::CLEAN;
    EngineState::Database database = EngineState::Database::LOADED;

private:
    std::mutex mutex_;
    std::condition_variable_any changed_;
    bool open_ = false;
    int admitted_ = 0;
};

class ScanJobsTest : public testing::Test {
protected:
    ScanJobsTest() {
        EXPECT_TRUE(quarantine_.open());
        settings_.historyFolder = dir_ / "history";
        settings_.ownFolders = {dir_ / "store"};
        request_.roots = {dir_ / "share"};
        fs::create_directory(dir_ / "share");
        restart(shippedEngine());
    }

    void restart(ScanEngine& engine) {
        jobs_.reset();
        journal_.reset();
        journal_ = std::make_unique<EventJournal>(EventJournalSettings{.folder = events_}, clock_);
        jobs_ = std::make_unique<ScanJobs>(settings_, engine, actions_, *journal_, clock_);
    }
    std::vector<Event> ends() const {
        std::vector<Event> all = journal_->query({.kinds = {EventKind::SCAN}}, 0, 99).events;
        std::erase_if(all, [](const Event& event) { return event.record.empty(); });
        return all;
    }
    bool settled() {
        EXPECT_TRUE(journal_->flush(PATIENCE));
        jobs_->cleanUp();
        for (const auto& file : fs::directory_iterator(settings_.historyFolder))
            if (file.path().extension() == ".json") return false;
        return true;
    }
    std::string begin() {
        const ScanStart start = jobs_->start(request_);
        EXPECT_TRUE(start.started) << start.message;
        return start.id;
    }
    ScanStatus finish(const std::string& id) {
        EXPECT_TRUE(jobs_->wait(id, PATIENCE));
        return jobs_->status(id).value_or(ScanStatus{});
    }
    ScanStatus run() { return finish(begin()); }
    void put(const std::string& name, const std::string& content) { ::writeFile(dir_ / ("share/" + name), content); }
    void waitForScans(const GatedEngine& engine, int scans) {
        while (engine.scans < scans) std::this_thread::yield();
    }

    TempDir dir_;
    Quarantine quarantine_{(dir_ / "store").string(), (dir_ / "trusted").string()};
    Actions actions_{quarantine_};
    TestClock clock_;
    fs::path events_ = dir_ / "events";
    ScanJobsSettings settings_;
    ScanRequest request_;
    GatedEngine gated_;
    std::unique_ptr<EventJournal> journal_;
    std::unique_ptr<ScanJobs> jobs_;
};

TEST_F(ScanJobsTest, CountsWhatItFindsAndTellsVerdictsApart) {
    put("clean", "text");
    put("sub/virus", testVirus());
    put("deep.zip", zipOf({{"a.zip", zipOf({{"virus", testVirus()}})}}));
    put("one.zip", zipOf({{"virus", testVirus()}}));
    request_.settings.scanCompressed = true;
    request_.settings.compressionLayer = 1;
    const ScanStatus status = run();
    EXPECT_EQ(status.state, ScanState::COMPLETED);
    EXPECT_EQ(status.total, 4U);
    EXPECT_EQ(status.scanned, 4U);
    EXPECT_EQ(status.found, 2U);
    EXPECT_EQ(status.notFullyScanned, 1U);
    EXPECT_EQ(status.id.find_first_not_of("0123456789_"), std::string::npos);
    EXPECT_EQ(jobs_->finds(status.id, 0).size(), 3U);
    EXPECT_EQ(jobs_->finds(status.id, 2).size(), 1U);
    EXPECT_TRUE(jobs_->finds(status.id, 3).empty());
}

TEST_F(ScanJobsTest, FindsAreDealtWithUnlessOnlyAReportIsAsked) {
    put("virus", testVirus());
    request_.settings.universeAction = "2-0";
    request_.act = false;
    EXPECT_EQ(run().found, 1U);
    EXPECT_TRUE(fs::exists(dir_ / "share/virus"));
    request_.act = true;
    const ScanStatus status = run();
    EXPECT_FALSE(fs::exists(dir_ / "share/virus"));
    ASSERT_EQ(quarantine_.list().size(), 1U);
    EXPECT_EQ(quarantine_.list().front().task, status.id);
    EXPECT_EQ(jobs_->finds(status.id, 0).front().type, "Test_Virus");
}

TEST_F(ScanJobsTest, ScanOfEverythingDoesNotFindTheQuarantineAgain) {
    put("virus", testVirus());
    request_.settings.universeAction = "2-0";
    request_.roots = {dir_.path()};
    EXPECT_EQ(run().found, 1U);
    EXPECT_EQ(run().found, 0U);
}

TEST_F(ScanJobsTest, ExtensionsAndExcludesOfTheSettingsDecide) {
    for (const char* name : {"a.exe", "a.txt", "b.exe", "out/c.exe"}) put(name, testVirus());
    request_.settings.includeExtList = "EXE";
    request_.settings.excludePaths = joinPathList({(dir_ / "share/out").string()});
    request_.settings.excludePatterns = "b.*";
    const ScanStatus status = run();
    EXPECT_EQ(status.total, 1U);
    EXPECT_EQ(status.found, 1U);
}

TEST_F(ScanJobsTest, SelectionByContentFindsProgramsUnderAnyName) {
    put("holiday.jpg", testVirus());
    put("text.txt", "Dear all");
    request_.settings.zelscan = true;
    const ScanStatus status = run();
    EXPECT_EQ(status.found, 1U);
    EXPECT_EQ(status.scanned, status.total);
}

TEST_F(ScanJobsTest, UnreadableFilesAreSkippedAndCounted) {
    // The real one needs rights for its own files.
    restart(gated_);
    gated_.open();
    put("closed", "x");
    put("open", "x");
    fs::permissions(dir_.path(), fs::perms::all);
    fs::permissions(dir_ / "share/closed", fs::perms::none);
    ScanStatus status;
    withoutPrivilege([&] { status = run(); });
    EXPECT_EQ(status.skipped, 1U);
    EXPECT_EQ(status.scanned, 1U);
    EXPECT_EQ(status.total, 2U);
    const ScanFind find = jobs_->finds(status.id, 0).at(0);
    EXPECT_EQ(std::pair(find.path, find.skipped), std::pair((dir_ / "share/closed").string(), true));
    EXPECT_EQ(status.state, ScanState::COMPLETED);
}

TEST_F(ScanJobsTest, SecondScanOfAKindIsRefusedAndNamesTheFirst) {
    restart(gated_);
    put("file", "x");
    const std::string id = begin();
    const ScanStart second = jobs_->start(request_);
    EXPECT_FALSE(second.started);
    EXPECT_EQ(second.id, id);
    request_.kind = ScanKind::SCHEDULED;
    EXPECT_TRUE(jobs_->start(request_).started) << "another kind stands in nobody's way";
    EXPECT_EQ(jobs_->running(ScanKind::MANUAL)->id, id);
    gated_.open();
    EXPECT_EQ(finish(id).state, ScanState::COMPLETED);
    EXPECT_FALSE(jobs_->running(ScanKind::MANUAL));
    request_.kind = ScanKind::MANUAL;
    EXPECT_NE(finish(begin()).id, id);
}

TEST_F(ScanJobsTest, StopEndsAScanInTheMiddle) {
    restart(gated_);
    for (int i = 0; i < 500; ++i) put("f" + std::to_string(i), "x");
    const std::string id = begin();
    waitForScans(gated_, 1);
    EXPECT_EQ(jobs_->status(id)->state, ScanState::RUNNING);
    EXPECT_FALSE(jobs_->status(id)->currentFile.empty());
    EXPECT_TRUE(jobs_->stop(id));
    const ScanStatus status = finish(id);
    EXPECT_EQ(status.state, ScanState::STOPPED);
    EXPECT_EQ(status.message, SCAN_STOPPED);
    EXPECT_LT(status.scanned, 500U);
    EXPECT_FALSE(jobs_->stop(id));
    EXPECT_FALSE(jobs_->stop("1_1"));
}

TEST_F(ScanJobsTest, TotalIsKnownBeforeTheScanIsThrough) {
    restart(gated_);
    for (int i = 0; i < 500; ++i) put("f" + std::to_string(i), "x");
    const std::string id = begin();
    while (jobs_->status(id)->total < 500U) std::this_thread::yield();
    EXPECT_EQ(jobs_->status(id)->scanned, 0U);
    gated_.open();
    EXPECT_EQ(finish(id).scanned, 500U);
}

TEST_F(ScanJobsTest, NoNumberOfEncryptedFilesHidesAFind) {
    settings_.findLimit = 4;
    restart(shippedEngine());
    for (int i = 0; i < 9; ++i) put("a" + std::to_string(i), zipOf({{"secret", "x"}}, true));
    put("folder/virus", testVirus());
    request_.settings.scanCompressed = true;
    request_.act = false;
    const ScanStatus status = run();
    EXPECT_EQ(status.notFullyScanned, 9U);
    EXPECT_EQ(jobs_->leftFinds(status.id, 9).size(), 1U);
}

TEST_F(ScanJobsTest, ResultsSurviveARestart) {
    put("virus", testVirus());
    request_.act = false;
    const ScanStatus before = run();
    EXPECT_TRUE(settled()) << "the journal alone tells of it";
    restart(shippedEngine());
    const std::optional<ScanStatus> after = jobs_->status(before.id);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->state, ScanState::COMPLETED);
    EXPECT_EQ(after->found, 1U);
    ASSERT_EQ(jobs_->finds(before.id, 0).size(), 1U);
    EXPECT_EQ(jobs_->finds(before.id, 0).front().path, dir_ / "share/virus");
    ASSERT_EQ(jobs_->leftFinds(before.id, 9).size(), 1U);
    EXPECT_EQ(jobs_->leftFinds(before.id, 9).front().signature, jobs_->finds(before.id, 0).front().signature);
    EXPECT_EQ(jobs_->history().size(), 1U);
    EXPECT_FALSE(jobs_->status("999_9"));
}

TEST_F(ScanJobsTest, ScanCutShortByAKillIsNotShownAsRunning) {
    restart(gated_);
    put("file", "x");
    const std::string id = begin();
    waitForScans(gated_, 1);
    // What a kill leaves.
    fs::copy(dir_ / "history", dir_ / "killed");
    fs::copy(events_, dir_ / "killed-events");
    settings_.historyFolder = dir_ / "killed";
    events_ = dir_ / "killed-events";
    restart(shippedEngine());
    EXPECT_EQ(jobs_->status(id)->state, ScanState::STOPPED);
    EXPECT_EQ(jobs_->status(id)->message, SCAN_INTERRUPTED);
    EXPECT_EQ(scanOutcome(*jobs_->status(id)), "interrupted");
    EXPECT_GE(jobs_->status(id)->ended, jobs_->status(id)->started);
    EXPECT_EQ(ends().at(0).action, "interrupted");
}

TEST_F(ScanJobsTest, ScansThatTheJournalDoesNotHaveAreTakenOverOnce) {
    const std::string first = R"({"id":"900_1","kind":"scheduled","state":3,"total":9,"scanned":8,"found":1,)"
                              R"("notFullyScanned":0,"skipped":1,"bytes":70,"started":900,"ended":950,)"
                              R"("message":"The scan is complete."})";
    ::writeFile(dir_ / "history/900_1.json", first);
    ::writeFile(dir_ / "history/900_1.finds", R"({"path":"/srv/a","infected":true,"signature":"S"})");
    ::writeFile(dir_ / "history/800_1.json", R"({"id":"800_1","kind":"path","state":2,"started":800,"ended":801})");
    ::writeFile(dir_ / "history/700_1.finds", "of a scan that nobody knows");
    for (const char* const when : {"at first", "later"}) {
        restart(shippedEngine());
        EXPECT_TRUE(settled()) << when;
        const auto scans = jobs_->history();
        ASSERT_EQ(scans.size(), 2U) << when;
        EXPECT_EQ(std::tuple(scans[0].id, scans[0].scanned, scans[0].skipped, scans[0].ended, scans[1].id),
                  std::tuple("900_1", 8U, 1U, 950, "800_1"))
            << when;
        EXPECT_EQ(jobs_->finds("900_1", 0).size(), 1U) << when;
        ASSERT_EQ(ends().size(), 2U) << when;
        EXPECT_EQ(ends().front().time, 950) << when;
        const auto find = journal_->query({.kinds = {EventKind::FIND}}, 0, 9).events;
        ASSERT_EQ(find.size(), 1U) << "the journal was empty before: " << when;
        EXPECT_EQ(std::tuple(find[0].path, find[0].time, find[0].task), std::tuple("/srv/a", 950, "scheduled"));
        EXPECT_EQ(journal_->query({.kinds = {EventKind::NOT_SCANNED}}, 0, 9).events.size(), 1U) << when;
        EXPECT_FALSE(fs::exists(dir_ / "history/700_1.finds"));
    }
}

TEST_F(ScanJobsTest, ShutdownStopsScansAndSaysSo) {
    restart(gated_);
    put("file", "x");
    const std::string id = begin();
    waitForScans(gated_, 1);
    restart(shippedEngine());
    EXPECT_EQ(jobs_->status(id)->message, SCAN_SHUT_DOWN);
    EXPECT_EQ(jobs_->status(id)->lastFile, dir_ / "share/file");
}

TEST_F(ScanJobsTest, ScanThatCannotBeDoneFailsWithAReason) {
    gated_.database = EngineState::Database::NONE;
    restart(gated_);
    EXPECT_EQ(run().message, SCAN_NO_SIGNATURES);
    gated_.database = EngineState::Database::LOADED;
    request_.roots.clear();
    EXPECT_EQ(run().message, SCAN_NO_FOLDER);
    request_.roots = {(dir_ / "missing/").string()};
    const ScanStatus status = run();
    EXPECT_EQ(status.state, ScanState::FAILED);
    EXPECT_EQ(status.message, SCAN_NOTHING_READABLE);
}

TEST_F(ScanJobsTest, ScanThatRunsOutOfMemoryFailsAndTheServiceGoesOn) {
    for (const unsigned int workers : {1U, 3U}) {
        request_.workers = workers;
        gated_.throws = true;
        restart(gated_);
        for (int i = 0; i < 20; ++i) put("f" + std::to_string(i), "x");
        const ScanStatus status = run();
        EXPECT_EQ(status.state, ScanState::FAILED) << workers;
        EXPECT_EQ(status.message, SCAN_BROKEN) << workers;
        gated_.throws = false;
        gated_.open();
        EXPECT_EQ(run().scanned, 20U) << workers;
    }
}

TEST_F(ScanJobsTest, NobodyTakesMoreWorkersThanThereMayBe) {
    constexpr int MOST = protocol::MAX_WORKERS;
    for (int i = 0; i < MOST + 8; ++i) put("f" + std::to_string(i), "x");
    restart(gated_);
    request_.workers = 1000;
    const std::string id = begin();
    waitForScans(gated_, MOST);
    EXPECT_FALSE(jobs_->wait(id, 200));
    EXPECT_EQ(gated_.scans, MOST);
    gated_.open();
    EXPECT_EQ(finish(id).scanned, static_cast<unsigned int>(MOST) + 8);
}

TEST_F(ScanJobsTest, APathScanHasTheWorkersThatItWasAskedToHave) {
    for (int i = 0; i < 8; ++i) put("f" + std::to_string(i), "x");
    restart(gated_);
    ::writeFile(dir_ / "config.xml", "<Document/>");
    ConfigurationStore configuration(dir_ / "config.xml", clock_);
    IPCMessage request(IPCMessage::START, IPCMessage::PATH_SCAN);
    request.addParam("Paths", (dir_ / "share").string());
    request.addParam("Workers", "5");
    IPCMessage reply;
    ASSERT_TRUE(handlers::startPathScan(configuration, *jobs_, request, reply));
    for (int i = 0; i < 200 && gated_.scans < 5; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto id = reply.value<std::string>("RequestID");
    EXPECT_FALSE(jobs_->wait(id, 100));
    EXPECT_EQ(gated_.scans, 5);
    gated_.open();
    EXPECT_EQ(finish(id).scanned, 8U);
}

TEST_F(ScanJobsTest, HowFarALongScanIsStandsOnDiskMeanwhile) {
    for (const char* name : {"a", "b", "c"}) put(name, "x");
    restart(gated_);
    request_.workers = 1;
    const std::string id = begin();
    waitForScans(gated_, 1);
    clock_.milliseconds = 6000;
    gated_.letOneThrough();
    waitForScans(gated_, 2);
    const std::string stored = ::readFile(dir_ / "history" / (id + ".json"));
    EXPECT_NE(stored.find(R"("state":4,)"), std::string::npos) << stored;
    EXPECT_NE(stored.find(R"("scanned":1,)"), std::string::npos) << stored;
    gated_.open();
    finish(id);
}

TEST_F(ScanJobsTest, FileThatTheEngineCannotScanIsNotCountedAsScanned) {
    gated_.verdict = Verdict::FAILED;
    gated_.open();
    restart(gated_);
    put("file", "x");
    const ScanStatus status = run();
    EXPECT_EQ(status.scanned, 0U);
    EXPECT_EQ(status.skipped, 1U);
    EXPECT_FALSE(jobs_->finds(status.id, 0).front().infected);
}

TEST_F(ScanJobsTest, OldResultsAreForgottenByNumberButNotTheLastOfItsKindNorByAClockThatJumps) {
    settings_.historyLimit = 2;
    restart(shippedEngine());
    request_.kind = ScanKind::SCHEDULED;
    const std::string nightly = run().id;
    request_.kind = ScanKind::PATH;
    std::vector<std::string> ids;
    for (int i = 0; i < 4; ++i) {
        ++clock_.seconds;
        ids.push_back(run().id);
    }
    clock_.seconds += int64_t{100} * 86400;
    EXPECT_TRUE(settled());
    ASSERT_EQ(jobs_->history().size(), 3U);
    EXPECT_EQ(jobs_->history()[1].id, ids[2]);
    EXPECT_EQ(jobs_->history()[2].id, nightly);
    EXPECT_FALSE(jobs_->status(ids.front()));
}

TEST_F(ScanJobsTest, APausedScanWaitsAtTheNextFileAndGoesOn) {
    restart(gated_);
    gated_.open();
    for (int i = 0; i < 50; ++i) put("f" + std::to_string(i), "x");
    // Midnight to a second after it, anywhere: the window is as good as closed.
    request_.window = {"00:00:00", "00:00:01"};
    const std::string id = begin();
    EXPECT_EQ(jobs_->status(id)->paused, ScanPause::Why::WINDOW);
    request_.kind = ScanKind::PATH;
    request_.window = {};
    gated_.close();
    const std::string other = begin();
    waitForScans(gated_, 2);
    EXPECT_TRUE(jobs_->pause(other, true));
    EXPECT_EQ(jobs_->status(other)->paused, ScanPause::Why::ASKED);
    gated_.open();
    EXPECT_FALSE(jobs_->wait(other, 200));
    EXPECT_LE(gated_.scans, 2) << "only what was under scan already is scanned";
    EXPECT_TRUE(jobs_->pause(other, false));
    EXPECT_EQ(finish(other).scanned, 50U);
    EXPECT_EQ(jobs_->status(id)->scanned, 0U);
    EXPECT_TRUE(jobs_->stop(id)) << "a paused scan can be stopped";
    EXPECT_EQ(finish(id).state, ScanState::STOPPED);
    EXPECT_FALSE(jobs_->pause(id, true));
}

TEST_F(ScanJobsTest, ProgressIsMeasuredByWhatTheDiskHolds) {
    put("small", std::string(100000, 'x'));
    put("huge.img", "");
    fs::resize_file(dir_ / "share/huge.img", std::uintmax_t{3} << 30U);
    const ScanStatus status = run();
    EXPECT_EQ(status.state, ScanState::COMPLETED);
    EXPECT_GE(status.bytes, 100000U);
    EXPECT_LT(status.bytes, 200000U) << "holes are no data";
    EXPECT_EQ(status.totalBytes, status.bytesDone);
}

TEST_F(ScanJobsTest, WhatCannotBeWrittenIsToldAndTriedAgain) {
    put("virus", testVirus());
    request_.act = false;
    fs::remove_all(dir_ / "history");
    ::writeFile(dir_ / "history", "in the way");
    const std::string id = run().id;
    EXPECT_FALSE(jobs_->status(id)->saved);
    EXPECT_NE(jobs_->problem(), "");
    jobs_->cleanUp();
    EXPECT_EQ(jobs_->finds(id, 0).size(), 1U) << "it is not forgotten meanwhile";
    fs::remove(dir_ / "history");
    fs::create_directory(dir_ / "history");
    jobs_->cleanUp();
    EXPECT_EQ(jobs_->problem(), "");
    restart(shippedEngine());
    EXPECT_EQ(jobs_->status(id)->state, ScanState::COMPLETED);
    EXPECT_EQ(jobs_->finds(id, 0).size(), 1U);
}

}  // namespace
}  // namespace keldra
