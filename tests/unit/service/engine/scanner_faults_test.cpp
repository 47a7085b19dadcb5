#include "tests/unit/service/scan_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <future>
#include <thread>

// What a file does to a scanner that takes the library over, or meets a fault in it, and what becomes of all others.

namespace keldra {
namespace {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

/// A line of /proc/PID/status, without its name.
std::string statusOf(pid_t pid, const std::string& name) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ":")) return line.substr(line.find_first_not_of(" \t", name.size() + 1));
    return {};
}

std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid > 0 && statusOf(pid, "PPid") == std::to_string(parent) && statusOf(pid, "Name") == "keldra-scanner")
            found.push_back(pid);
    }
    return found;
}

bool waitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 300 && !condition(); ++i) std::this_thread::sleep_for(10ms);
    return condition();
}

class ScannerFaultsTest : public testing::Test {
protected:
    ScannerFaultsTest() {
        ::setenv("LD_PRELOAD", BINARY_DIR "/tests/libmisbehave.so", 1);
        EngineSettings settings = engineSettings({SOURCE_DIR "/deploy/signatures", dir_ / "more"});
        settings.temporaryFolder = dir_ / "tmp";
        std::filesystem::create_directories(dir_ / "more");
        engine_ = makeScanEngine(settings);
        EXPECT_TRUE(engine_->load());
    }
    ~ScannerFaultsTest() override { ::unsetenv("LD_PRELOAD"); }

    ScanResult scan(const std::string& content, ScanLane lane = ScanLane::PATH, std::stop_token stop = {}) {
        const std::filesystem::path path = dir_ / ("sample-" + std::to_string(++files_));
        writeFile(path, content);
        const ScannedFile file = opened(path);
        return engine_->scan(file.file.get(), file.path,
                             {.lane = lane, .limits = {.seconds = content.starts_with("MISBEHAVE-HANG") ? 1U : 60U}},
                             std::move(stop));
    }

    /// An archive of one file of so many MiB.
    std::filesystem::path zipOfZeros(uint64_t size) const {
        std::filesystem::path zip = dir_ / "zeros.zip";
        const std::filesystem::path member = dir_ / "zeros";
        writeFile(member, "begin");
        std::filesystem::resize_file(member, size << 20U);
        EXPECT_EQ(std::system(("zip -q -1 -j " + zip.string() + " " + member.string()).c_str()), 0);
        return zip;
    }

    TempDir dir_;
    std::unique_ptr<ScanEngine> engine_;
    std::atomic<int> files_ = 0;
};

TEST_F(ScannerFaultsTest, AFileFailsByItselfAndNamesWhatItDid) {
    const std::pair<const char*, const char*> CASES[] = {{"MISBEHAVE-CRASH", "the scanner crashed"},
                                                         {"MISBEHAVE-HANG", "the scan took too long"},
                                                         {"MISBEHAVE-MEMORY", "the scanner took too much memory"},
                                                         {"MISBEHAVE-NONSENSE", "the scanner answered nonsense"}};
    for (const auto& [content, reason] : CASES) {
        const ScanResult result = scan(content, ScanLane::REALTIME);
        EXPECT_EQ(result.verdict, Verdict::FAILED) << content;
        EXPECT_EQ(result.detail, reason) << content;
        EXPECT_EQ(scan(testVirus()).verdict, Verdict::INFECTED) << "after " << content;
        EXPECT_EQ(scan("harmless").verdict, Verdict::CLEAN) << "after " << content;
    }
    EXPECT_TRUE(engine_->state().guarding);
    EXPECT_EQ(engine_->state().hanging, 0U);
}

TEST_F(ScannerFaultsTest, HungFilesKeepNeitherTheRealtimeScanNorOtherLanesFromTheirFiles) {
    std::vector<std::future<ScanResult>> hung;
    for (const ScanLane lane : {ScanLane::MANUAL, ScanLane::MANUAL, ScanLane::MANUAL, ScanLane::REALTIME})
        hung.push_back(std::async(std::launch::async, [this, lane] { return scan("MISBEHAVE-HANG", lane); }));
    std::this_thread::sleep_for(100ms);
    const auto begin = Steady::now();
    EXPECT_EQ(scan(testVirus(), ScanLane::REALTIME).verdict, Verdict::INFECTED);
    EXPECT_LT(Steady::now() - begin, 1s);
    EXPECT_EQ(scan(testVirus(), ScanLane::SCHEDULED).verdict, Verdict::INFECTED);
    for (auto& one : hung) EXPECT_EQ(one.get().verdict, Verdict::FAILED);
}

TEST_F(ScannerFaultsTest, TheRealtimeScanDoesNotTryAFileAgainThatEndedItsScanner) {
    writeFile(dir_ / "hang", "MISBEHAVE-HANG");
    const ScannedFile file = opened(dir_ / "hang");
    const ScanOptions options{.lane = ScanLane::REALTIME, .limits = {.seconds = 1}};
    EXPECT_EQ(engine_->scan(file.file.get(), file.path, options, {}).verdict, Verdict::FAILED);
    const auto begin = Steady::now();
    EXPECT_EQ(engine_->scan(file.file.get(), file.path, options, {}).detail, "the scan took too long");
    EXPECT_LT(Steady::now() - begin, 100ms);
}

TEST_F(ScannerFaultsTest, AStopDoesNotWaitForAHungFile) {
    std::stop_source stop;
    auto hung =
        std::async(std::launch::async, [&] { return scan("MISBEHAVE-HANG", ScanLane::MANUAL, stop.get_token()); });
    std::this_thread::sleep_for(100ms);
    const auto begin = Steady::now();
    stop.request_stop();
    EXPECT_EQ(hung.get().detail, STOPPED);
    EXPECT_LT(Steady::now() - begin, 500ms);
}

TEST_F(ScannerFaultsTest, AScannerIsLetDoNothingButScan) {
    EXPECT_EQ(scan("MISBEHAVE-BREAKOUT").verdict, Verdict::CLEAN) << "standard error tells what it was let do";
    EXPECT_FALSE(std::filesystem::exists("/var/tmp/keldra-broke-out"));
    const std::vector<pid_t> hosts = childrenOf(::getpid());
    ASSERT_FALSE(hosts.empty());
    std::vector<pid_t> all = childrenOf(hosts.back());
    ASSERT_FALSE(all.empty());
    all.push_back(hosts.back());
    for (const pid_t pid : all) {
        EXPECT_TRUE(engine_->ownsProcess(pid));
        for (const char* const set : {"CapEff", "CapPrm", "CapInh", "CapAmb"})
            EXPECT_EQ(statusOf(pid, set), "0000000000000000") << set;
        EXPECT_EQ(statusOf(pid, "NoNewPrivs"), "1");
        EXPECT_EQ(statusOf(pid, "Seccomp"), "2");
        EXPECT_FALSE(statusOf(pid, "Uid").starts_with("0\t"));
    }
}

TEST_F(ScannerFaultsTest, AHostIsLetDoNothingButLoadAndFork) {
    ::setenv("MISBEHAVE_LOAD", "MISBEHAVE-BREAKOUT", 1);
    EXPECT_TRUE(engine_->load()) << "standard error tells what it was let do";
    ::unsetenv("MISBEHAVE_LOAD");
    EXPECT_FALSE(std::filesystem::exists("/var/tmp/keldra-broke-out"));
}

TEST_F(ScannerFaultsTest, AHostThatEndsIsReplacedAndItsScansAreDoneAgain) {
    const std::vector<pid_t> hosts = childrenOf(::getpid());
    ASSERT_FALSE(hosts.empty());
    ASSERT_EQ(::kill(hosts.back(), SIGKILL), 0);
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(engine_->state().guarding);
    EXPECT_EQ(scan(testVirus()).verdict, Verdict::INFECTED);
    EXPECT_TRUE(engine_->state().guarding);
    EXPECT_EQ(engine_->state().restarts, 1U);
}

/// A set of signatures that is large enough to be thought about; in KiB what hosts hold of it together, at most.
class ReloadTest : public ScannerFaultsTest {
protected:
    long peakOfReload() {
        std::ofstream more(dir_ / "more" / "large.hdb", std::ios::app);
        for (int i = 0; i < 400000; ++i) {
            std::array<char, 64> line{};
            std::snprintf(line.data(), line.size(), "%032x:%d:Made-Up-%d\n", ++hashes_ * 2654435761U, 100 + i % 90000,
                          i);
            more << line.data();
        }
        more.close();
        long most = 0;
        std::jthread watcher([&](const std::stop_token& stop) {
            for (; !stop.stop_requested(); std::this_thread::sleep_for(5ms)) most = std::max(most, held());
        });
        EXPECT_TRUE(engine_->load());
        return most;
    }
    static long held() {
        long all = 0;
        for (const pid_t host : childrenOf(::getpid())) all += std::atol(statusOf(host, "RssAnon").c_str());
        return all;
    }

    unsigned hashes_ = 0;
};

TEST_F(ReloadTest, TakesTwoSetsAtMostForAMomentAndOneWhenMemoryIsShort) {
    EngineSettings settings = engineSettings({SOURCE_DIR "/deploy/signatures", dir_ / "more"});
    settings.temporaryFolder = dir_ / "tmp";
    uint64_t available = uint64_t{1} << 40U;
    settings.availableMemory = [&available] { return available; };
    engine_.reset();
    engine_ = makeScanEngine(settings);
    peakOfReload();
    const long one = held();
    const long peak = peakOfReload();  // twice as many signatures
    EXPECT_LT(peak, 3 * one + one / 2);
    EXPECT_TRUE(waitFor([&] { return held() < 2 * one + one / 2; })) << "the set before is given back";
    const long two = held();
    available = 0;
    std::filesystem::resize_file(dir_ / "more" / "large.hdb", 0);
    EXPECT_LT(peakOfReload(), two + one / 2) << "the set before goes first";
    EXPECT_EQ(scan(testVirus()).verdict, Verdict::INFECTED);
}

TEST_F(ScannerFaultsTest, WithoutAFolderToUnpackInNothingIsCalledClean) {
    EXPECT_EQ(scan("harmless").verdict, Verdict::CLEAN);
    std::filesystem::remove_all(dir_ / "tmp");
    EXPECT_EQ(scan(zipOf({{"virus", testVirus()}})).verdict, Verdict::INFECTED) << "the folder was made anew";
    std::filesystem::remove_all(dir_ / "tmp");
    writeFile(dir_ / "tmp", "in the way");
    const ScanResult result = scan(zipOf({{"virus", testVirus()}}));
    EXPECT_EQ(result.verdict, Verdict::FAILED);
    EXPECT_NE(result.detail.find("temporary"), std::string::npos) << result.detail;
    EXPECT_EQ(scan("harmless as well").verdict, Verdict::FAILED);
}

TEST_F(ScannerFaultsTest, TheDiskIsNotFilledByWhatAFileHolds) {
    EngineSettings settings = engineSettings({SOURCE_DIR "/deploy/signatures"});
    settings.temporaryFolder = dir_ / "small";
    settings.room = uint64_t{16} << 20U;
    engine_ = makeScanEngine(settings);
    ASSERT_TRUE(engine_->load());
    const ScannedFile file = opened(zipOfZeros(320));
    const ScanResult result = engine_->scan(file.file.get(), file.path, {}, {});
    EXPECT_EQ(result.verdict, Verdict::NOT_FULLY_SCANNED);
    EXPECT_EQ(result.detail, "what it holds takes too much room unpacked");
    const auto left = [&] {
        const std::filesystem::recursive_directory_iterator all(settings.temporaryFolder);
        return std::count_if(begin(all), end(all), [](const auto& entry) { return !entry.is_directory(); });
    };
    EXPECT_TRUE(waitFor([&] { return left() == 0; }));
    EXPECT_EQ(scan("harmless").verdict, Verdict::CLEAN);
}

TEST_F(ScannerFaultsTest, WhatIsCutOffAtALimitIsNotCalledClean) {
    const ScannedFile file = opened(zipOfZeros(24));
    const ScanOptions limited{.lane = ScanLane::REALTIME, .limits = {.unpacked = uint64_t{16} << 20U}};
    EXPECT_EQ(engine_->scan(file.file.get(), file.path, limited, {}).verdict, Verdict::NOT_FULLY_SCANNED);
    EXPECT_EQ(engine_->scan(file.file.get(), file.path, {}, {}).verdict, Verdict::CLEAN);
}

TEST_F(ScannerFaultsTest, AFolderThatCannotBeReadKeepsTheSignaturesInUse) {
    writeFile(dir_ / "more/a.ndb", signatureLine("First", "first-bad-content"));
    ASSERT_TRUE(engine_->load());
    EXPECT_EQ(engine_->state().signatures - engine_->state().signaturesForTrying, 1U);
    std::filesystem::rename(dir_ / "more", dir_ / "away");
    writeFile(dir_ / "more", "no folder");
    EXPECT_FALSE(engine_->load());
    EXPECT_NE(engine_->state().message.find("cannot be loaded"), std::string::npos);
    EXPECT_EQ(scan("first-bad-content").verdict, Verdict::INFECTED);
}

}  // namespace
}  // namespace keldra
