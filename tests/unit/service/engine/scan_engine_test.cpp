#include "service/engine/scan_engine.h"

#include "norv/scan_config.h"
#include "tests/unit/service/scan_fixture.h"

#include <atomic>
#include <future>
#include <thread>

namespace keldra {
namespace {

constexpr uint64_t NO_LIMIT = 0;

class ScanEngineTest : public testing::Test {
protected:
    ScanResult scan(const std::string& content, const ScanOptions& options = {}, std::stop_token stop = {}) {
        writeFile(dir_ / "sample", content);
        const ScannedFile file = opened(dir_ / "sample");
        return shippedEngine().scan(file.file.get(), file.path, options, std::move(stop));
    }

    std::unique_ptr<ScanEngine> engineOver(const std::vector<std::string>& folders) {
        std::vector<std::string> paths;
        for (const std::string& folder : folders) paths.push_back(dir_ / folder);
        return makeScanEngine(engineSettings(paths));
    }

    Verdict verdictOf(ScanEngine& engine, const std::string& content) {
        writeFile(dir_ / "sample", content);
        const ScannedFile file = opened(dir_ / "sample");
        return engine.scan(file.file.get(), file.path, {}, {}).verdict;
    }

    TempDir dir_;
};

TEST_F(ScanEngineTest, TestFileIsFoundWithTheShippedSignatures) {
    const ScanResult result = scan(testVirus());
    EXPECT_EQ(result.verdict, Verdict::INFECTED);
    EXPECT_EQ(result.signature, "Eicar-Test-Signature");
    EXPECT_EQ(scan("just a text").verdict, Verdict::CLEAN);
    EXPECT_EQ(scan("").verdict, Verdict::CLEAN);
}

struct ArchiveCase {
    const char* loss;
    int zips;
    ScanOptions options;
    Verdict verdict;
};

class ArchiveTest : public ScanEngineTest, public testing::WithParamInterface<ArchiveCase> {};

TEST_P(ArchiveTest, IsOpenedAsDeeplyAsTheSettingsSay) {
    std::string content = testVirus();
    for (int i = 0; i < GetParam().zips; ++i) content = zipOf({{"inner", content}});
    EXPECT_EQ(scan(content, GetParam().options).verdict, GetParam().verdict) << GetParam().loss;
}

INSTANTIATE_TEST_SUITE_P(
    Depths, ArchiveTest,
    testing::Values(
        ArchiveCase{"archives are opened although switched off", 1, {false, 1, NO_LIMIT}, Verdict::CLEAN},
        ArchiveCase{"one layer is not opened", 1, {true, 1, NO_LIMIT}, Verdict::INFECTED},
        ArchiveCase{"the second layer is not told apart", 2, {true, 1, NO_LIMIT}, Verdict::NOT_FULLY_SCANNED},
        ArchiveCase{"two layers are not opened", 2, {true, 2, NO_LIMIT}, Verdict::INFECTED},
        ArchiveCase{"no set depth opens nothing", 5, {true, 0, NO_LIMIT}, Verdict::INFECTED},
        ArchiveCase{"an absurd depth breaks the engine", 2, {true, 4294967295U, NO_LIMIT}, Verdict::INFECTED},
        ArchiveCase{"an archive bomb of depth is called clean", 40, {true, 0, NO_LIMIT}, Verdict::NOT_FULLY_SCANNED}));

TEST_F(ScanEngineTest, WhatIsNextToATooDeepArchiveIsStillFound) {
    const std::string deep = zipOf({{"a.zip", zipOf({{"b", "text"}})}, {"virus", testVirus()}});
    EXPECT_EQ(scan(deep, {true, 1, NO_LIMIT}).verdict, Verdict::INFECTED);
}

TEST_F(ScanEngineTest, WebPagesInAnArchiveOfOneLayerCountAsScanned) {
    const std::string page = "<html><body>Hello <script>alert(1)</script></body></html>";
    EXPECT_EQ(scan(zipOf({{"a.html", page}}), {true, 1, NO_LIMIT}).verdict, Verdict::CLEAN);
}

TEST_F(ScanEngineTest, ArchiveMembersBeyondTheSizeLimitAreReportedAndTheRestIsScanned) {
    const std::string large(3000, 'x');
    const ScanOptions limited{true, 1, 2000};
    EXPECT_EQ(scan(zipOf({{"large", large}}), limited).verdict, Verdict::NOT_FULLY_SCANNED);
    EXPECT_EQ(scan(zipOf({{"large", large}, {"virus", testVirus()}}), limited).verdict, Verdict::INFECTED);
    EXPECT_EQ(scan(large, limited).verdict, Verdict::CLEAN) << "the limit is for archives";
    EXPECT_EQ(scan(zipOf({{"large", large}}), {true, 1, 3000}).verdict, Verdict::CLEAN);
}

TEST_F(ScanEngineTest, EachLaneKeepsToItsLimits) {
    writeFile(dir_ / "one/a.ndb", signatureLine("First", "first-bad-content"));
    const std::unique_ptr<ScanEngine> engine = engineOver({"one"});
    ASSERT_TRUE(engine->load());
    const std::string zip = zipOf({{"a", "text a"}, {"b", "text b"}, {"c", "text c"}, {"d", "text d"}});
    const auto verdictIn = [&](ScanLane lane) {
        writeFile(dir_ / "sample", zip);
        const ScannedFile file = opened(dir_ / "sample");
        return engine->scan(file.file.get(), file.path, {.lane = lane}, {}).verdict;
    };
    for (const bool realtimeIsLow : {false, true}) {
        EngineLimits limits;
        (realtimeIsLow ? limits.realtime : limits.usual).members = 2;
        engine->setLimits(limits);
        const Verdict others = realtimeIsLow ? Verdict::CLEAN : Verdict::NOT_FULLY_SCANNED;
        for (const ScanLane lane : {ScanLane::MANUAL, ScanLane::SCHEDULED, ScanLane::PATH, ScanLane::CLIENT})
            EXPECT_EQ(verdictIn(lane), others) << static_cast<int>(lane);
        EXPECT_EQ(verdictIn(ScanLane::REALTIME), realtimeIsLow ? Verdict::NOT_FULLY_SCANNED : Verdict::CLEAN);
    }
}

TEST_F(ScanEngineTest, ScansWithOtherSettingsDoNotSpoilEachOther) {
    const std::string zip = zipOf({{"virus", testVirus()}});
    EXPECT_EQ(scan(zip, {false, 0, NO_LIMIT}).verdict, Verdict::CLEAN);
    EXPECT_EQ(scan(zip, {true, 1, NO_LIMIT}).verdict, Verdict::INFECTED);
}

TEST_F(ScanEngineTest, WhatWasCleanIsScannedAnewWithOtherSettingsOtherContentOrOtherSignatures) {
    const std::string zip = zipOf({{"virus", "first-bad-content"}});
    writeFile(dir_ / "one/a.ndb", signatureLine("Other", "other-bad-content"));
    const std::unique_ptr<ScanEngine> engine = engineOver({"one"});
    ASSERT_TRUE(engine->load());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(verdictOf(*engine, zip), Verdict::CLEAN);
    EXPECT_EQ(verdictOf(*engine, "x" + zipOf({{"virus", "other-bad-content"}})), Verdict::INFECTED);
    writeFile(dir_ / "one/b.ndb", signatureLine("First", "first-bad-content"));
    ASSERT_TRUE(engine->load());
    EXPECT_EQ(verdictOf(*engine, zip), Verdict::INFECTED);
}

TEST_F(ScanEngineTest, StopInTheMiddleOfALargeFileDoesNotWaitForItsEnd) {
    writeFile(dir_ / "large", "begin");
    std::filesystem::resize_file(dir_ / "large", uint64_t{1} << 30U);
    const ScannedFile file = opened(dir_ / "large");
    std::stop_source stop;
    const std::jthread stopper([&stop] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        stop.request_stop();
    });
    const auto begin = std::chrono::steady_clock::now();
    const ScanResult result = shippedEngine().scan(file.file.get(), file.path, {}, stop.get_token());
    EXPECT_EQ(result.verdict, Verdict::NOT_FULLY_SCANNED) << result.detail;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(ScanEngineTest, EncryptedArchiveIsNeitherCleanNorInfected) {
    const ScanResult result = scan(zipOf({{"secret", "0123456789abcdef"}}, true), {true, 1, NO_LIMIT});
    EXPECT_EQ(result.verdict, Verdict::NOT_FULLY_SCANNED);
    EXPECT_NE(result.detail.find("encrypted"), std::string::npos);
}

TEST_F(ScanEngineTest, FilesInAFormThatTheEngineDoesNotReadAreNotCalledClean) {
    const std::string zip = zipOf({{"virus", testVirus()}});
    std::string large = zip;
    large.replace(zip.find("PK\3\4") + 18, 8, 8, '\xff');
    EXPECT_EQ(scan(large).verdict, Verdict::NOT_FULLY_SCANNED);
    EXPECT_EQ(scan(zipOf({{"inner", large}})).verdict, Verdict::NOT_FULLY_SCANNED);
    EXPECT_EQ(scan(zipOf({{"large", large}, {"plain", testVirus()}})).verdict, Verdict::INFECTED);
    large = zip;
    large.replace(zip.find("PK\1\2") + 20, 8, 8, '\xff');
    EXPECT_NE(scan(large).verdict, Verdict::CLEAN);
    EXPECT_EQ(scan(zipOf({{"text", "PK\3\4 and PK\1\2 are marks"}})).verdict, Verdict::CLEAN);
}

TEST_F(ScanEngineTest, StoppedScanOfAnArchiveIsNotCalledClean) {
    std::stop_source stop;
    stop.request_stop();
    EXPECT_EQ(scan(zipOf({{"virus", testVirus()}}), {}, stop.get_token()).verdict, Verdict::NOT_FULLY_SCANNED);
}

TEST_F(ScanEngineTest, FileBeyondTheEnginesSizeIsReported) {
    EngineSettings settings = engineSettings({SOURCE_DIR "/deploy/signatures"});
    settings.fileSize = 1000;
    const std::unique_ptr<ScanEngine> engine = makeScanEngine(settings);
    ASSERT_TRUE(engine->load());
    EXPECT_EQ(verdictOf(*engine, std::string(1001, 'x')), Verdict::NOT_FULLY_SCANNED);
}

TEST_F(ScanEngineTest, WithoutSignaturesNothingIsCalledClean) {
    std::filesystem::create_directory(dir_ / "empty");
    const std::unique_ptr<ScanEngine> engine = engineOver({"empty", "missing"});
    EXPECT_EQ(verdictOf(*engine, "text"), Verdict::FAILED);
    EXPECT_FALSE(engine->load());
    EXPECT_EQ(engine->state().database, EngineState::Database::NONE);
    EXPECT_FALSE(engine->state().message.empty());
    EXPECT_EQ(verdictOf(*engine, "text"), Verdict::FAILED);
}

TEST_F(ScanEngineTest, FoldersAreLoadedTogetherAndAReloadBringsWhatIsNew) {
    writeFile(dir_ / "one/a.ndb", signatureLine("First", "first-bad-content"));
    const std::unique_ptr<ScanEngine> engine = engineOver({"one", "two"});
    ASSERT_TRUE(engine->load());
    EXPECT_EQ(verdictOf(*engine, "second-bad-content"), Verdict::CLEAN);
    writeFile(dir_ / "two/b.ndb", signatureLine("Second", "second-bad-content"));
    std::promise<bool> loaded;
    engine->reload([&loaded](bool done) { loaded.set_value(done); });
    ASSERT_TRUE(loaded.get_future().get());
    EXPECT_EQ(verdictOf(*engine, "first-bad-content"), Verdict::INFECTED);
    EXPECT_EQ(verdictOf(*engine, "second-bad-content"), Verdict::INFECTED);
    EXPECT_EQ(engine->state().signatures, 2U);
    EXPECT_GT(engine->state().databaseTime, 0);
    EXPECT_FALSE(engine->state().databaseVersion.empty());
}

TEST_F(ScanEngineTest, BadSignaturesLeaveTheOldOnesInUseAndSaySo) {
    writeFile(dir_ / "one/a.ndb", signatureLine("First", "first-bad-content"));
    const std::unique_ptr<ScanEngine> engine = engineOver({"one"});
    ASSERT_TRUE(engine->load());
    writeFile(dir_ / "one/b.ndb", "this is no signature\n");
    EXPECT_FALSE(engine->load());
    EXPECT_EQ(engine->state().database, EngineState::Database::LOADED);
    EXPECT_NE(engine->state().message.find("cannot be loaded"), std::string::npos);
    EXPECT_EQ(verdictOf(*engine, "first-bad-content"), Verdict::INFECTED);
}

TEST_F(ScanEngineTest, OneBadFolderDoesNotKeepTheOthersFromProtectingAtTheStart) {
    writeFile(dir_ / "good/a.ndb", signatureLine("First", "first-bad-content"));
    writeFile(dir_ / "bad/b.ndb", "this is no signature\n");
    const std::unique_ptr<ScanEngine> engine = engineOver({"good", "bad"});
    EXPECT_TRUE(engine->load());
    EXPECT_FALSE(engine->state().message.empty());
    EXPECT_EQ(verdictOf(*engine, "first-bad-content"), Verdict::INFECTED);
}

TEST_F(ScanEngineTest, ScansGoOnWhileSignaturesAreReloaded) {
    writeFile(dir_ / "one/a.ndb", signatureLine("First", "first-bad-content"));
    const std::unique_ptr<ScanEngine> engine = engineOver({"one"});
    ASSERT_TRUE(engine->load());
    writeFile(dir_ / "virus", "first-bad-content");
    std::atomic<int> missed = 0;
    std::atomic<int> scans = 0;
    std::jthread scanner([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const ScannedFile file = opened(dir_ / "virus");
            if (engine->scan(file.file.get(), file.path, {}, {}).verdict != Verdict::INFECTED) ++missed;
            ++scans;
        }
    });
    for (int i = 0; i < 5 || scans == 0; ++i) EXPECT_TRUE(engine->load());
    scanner.request_stop();
    scanner.join();
    EXPECT_EQ(missed, 0);
}

TEST_F(ScanEngineTest, TrustedFileIsClean) {
    EngineSettings settings = engineSettings({SOURCE_DIR "/deploy/signatures"});
    settings.trusted = [](int /*fd*/) { return true; };
    const std::unique_ptr<ScanEngine> engine = makeScanEngine(settings);
    ASSERT_TRUE(engine->load());
    EXPECT_EQ(verdictOf(*engine, testVirus()), Verdict::CLEAN);
}

TEST_F(ScanEngineTest, FormatsOfTheEnginesOwnTestFilesAreAllOpened) {
    const std::filesystem::path samples = "/usr/share/clamav-testfiles";
    if (!std::filesystem::exists(samples)) GTEST_SKIP() << "the package clamav-testfiles is not installed";
    // The content of clam.exe, as the package's documentation gives it.
    writeFile(dir_ / "one/clam.hdb", "aa15bcf478d165efd2065190eb473bcb:544:Clam-Test-File\n");
    const std::unique_ptr<ScanEngine> engine = engineOver({"one"});
    ASSERT_TRUE(engine->load());
    for (const auto& entry : std::filesystem::directory_iterator(samples)) {
        const ScannedFile file = opened(entry.path());
        EXPECT_EQ(engine->scan(file.file.get(), file.path, {}, {}).verdict, Verdict::INFECTED) << entry.path();
    }
}

TEST_F(ScanEngineTest, SettingsReachTheEngineInItsUnits) {
    NORVManualScanConfig settings;
    settings.scanCompressed = true;
    settings.compressionLayer = 3;
    settings.compressFileSizeLimit = 4294967295U;
    const ScanOptions options = scanOptionsOf(settings);
    EXPECT_TRUE(options.archives);
    EXPECT_EQ(options.layers, 3U);
    EXPECT_EQ(options.memberSizeLimit, uint64_t{4294967295U} * 1024 * 1024);
}

}  // namespace
}  // namespace keldra
