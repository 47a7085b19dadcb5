#include "tests/service/service_test.h"

#include <sched.h>
#include <sys/mount.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr int FILES = 20;
constexpr int MANY = 1500;

/// Of a process, in KiB.
long memoryOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    long size = 0;
    while (status >> word && word != "VmRSS:") continue;
    status >> size;
    return size;
}

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

/// A service whose scanners do what the first word of a file says.
class ScannerTest : public ServiceTest {
protected:
    ScannerTest() {
        service_.environment["LD_PRELOAD"] = BINARY_DIR "/tests/libmisbehave.so";
        for (int i = 0; i < FILES; ++i) {
            const std::filesystem::path folder = service_.file("samples") / std::to_string(i);
            writeFile(folder / "crash", "MISBEHAVE-CRASH " + std::to_string(i));
            writeFile(folder / "eicar.com", testFile());
            writeFile(folder / "clean", "harmless " + std::to_string(i));
        }
    }

    /// A scan as the console starts it; its id.
    std::string startByHand() const {
        return ask(IPCMessage::START, IPCMessage::MANUAL_SCAN).value<std::string>("RequestID");
    }
    bool running(const std::string& id) const {
        return ask(IPCMessage::GET, IPCMessage::MANUAL_SCAN_STATUS, "RequestID", id).value<std::string>("Outcome") ==
               "running";
    }
    ProcessResult scan() const { return service_.control({"scan", service_.file("samples")}); }
};

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

TEST_F(ScannerTest, FilesThatEndTheirScannerAreNamedAndAllOthersAreScanned) {
    ASSERT_TRUE(service_.start());
    const pid_t pid = service_.pid();
    const ProcessResult first = scan();
    EXPECT_EQ(countOf(first.output, "eicar.com"), FILES) << first.output;
    EXPECT_EQ(countOf(first.output, "the scanner crashed"), FILES) << first.output;
    EXPECT_EQ(countOf(scan().output, "eicar.com"), FILES);
    EXPECT_TRUE(service_.running());
    EXPECT_EQ(service_.pid(), pid);
}

TEST_F(ScannerTest, AFileThatHangsEndsAtTheLimitOfTheSettings) {
    writeFile(service_.file("samples") / "0" / "hang", "MISBEHAVE-HANG");
    ASSERT_TRUE(service_.start());
    const ProcessResult refused = service_.control({"settings", "set", "limits.seconds", "0"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.errors.find("from 1 to 600"), std::string::npos) << refused.errors;
    ASSERT_EQ(service_.control({"settings", "set", "limits.seconds", "1"}).status, 0);
    const ProcessResult result = scan();
    EXPECT_EQ(countOf(result.output, "the scan took too long"), 1U) << result.output;
    EXPECT_EQ(countOf(result.output, "eicar.com"), FILES);
}

TEST_F(ScannerTest, AScanStopsWhileAFileHangsAndTheNextOneBegins) {
    writeFile(service_.file("samples") / "0" / "hang", "MISBEHAVE-HANG");
    ASSERT_TRUE(service_.start());
    for (int i = 0; i < 2; ++i) {
        const std::string id = startByHand();
        std::this_thread::sleep_for(700ms);
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(running(id));
        ask(IPCMessage::STOP, IPCMessage::MANUAL_SCAN, "RequestID", id);
        while (running(id) && std::chrono::steady_clock::now() - begin < 10s) std::this_thread::sleep_for(20ms);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
    }
}

TEST_F(ScannerTest, WhatWasCleanIsKnownAfterARestartAndCostsNoMemory) {
    const std::filesystem::path many = service_.file("samples") / "many";
    for (int i = 0; i < MANY; ++i) writeFile(many / std::to_string(i), "harmless as well " + std::to_string(i));
    std::this_thread::sleep_for(2100ms);  // until their times can show the next change
    ASSERT_TRUE(service_.start());
    service_.control({"scan", many});
    const long before = memoryOf(service_.pid());
    for (int i = 0; i < 5; ++i) service_.control({"scan", many});
    EXPECT_LT(memoryOf(service_.pid()), before + 1024);
    service_.stop();
    service_.environment["MISBEHAVE_SCAN"] = "MISBEHAVE-CRASH";
    ASSERT_TRUE(service_.start());
    const std::string again = service_.control({"scan", many}).output;
    if (countOf(again, "the scanner crashed") == MANY) GTEST_SKIP() << "this file system's times do not tell";
    EXPECT_EQ(countOf(again, "the scanner crashed"), 0U) << again.substr(0, 1000);
    EXPECT_LT(memoryOf(service_.pid()), 60 * 1024);
    writeFile(many / "0", "changed");
    EXPECT_EQ(countOf(service_.control({"scan", many}).output, "the scanner crashed"), 1U);
}

/// The folder for what is unpacked is a disk of its own.
TEST_F(ScannerTest, WhatFindsNoRoomToBeUnpackedIsNeverCalledCleanAndTold) {
    const std::filesystem::path room = service_.file("state") / "tmp";
    std::filesystem::create_directories(room);
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", room.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "it needs a disk of its own";
    const std::filesystem::path zeros = service_.file("zeros");
    writeFile(zeros, "begin");
    std::filesystem::resize_file(zeros, 8U << 20U);
    const std::string zip = service_.file("samples") / "0" / "large.zip";
    ASSERT_EQ(std::system(("zip -q -j " + zip + " " + zeros.string()).c_str()), 0);
    std::this_thread::sleep_for(2100ms);
    ASSERT_TRUE(service_.start());
    for (int i = 0; i < 2; ++i) {
        const std::string told = scan().output;
        EXPECT_EQ(countOf(told, "large.zip"), 1U) << told;
        EXPECT_EQ(countOf(told, "eicar.com"), FILES) << told;
    }
    EXPECT_NE(service_.control({"events"}).output.find("large.zip"), std::string::npos);
    for (const std::string id = startByHand(); running(id);) std::this_thread::sleep_for(20ms);
    EXPECT_NE(service_.control({"status", "--json"}).output.find("files_not_scanned"), std::string::npos);
    ASSERT_EQ(::mount("none", room.c_str(), nullptr, MS_REMOUNT, "size=64m"), 0);
    EXPECT_EQ(countOf(scan().output, "large.zip"), 0U);
    service_.stop();
    ::umount2(room.c_str(), MNT_DETACH);
}

TEST_F(ScannerTest, TheServiceEndsWhileAFileHangs) {
    writeFile(service_.file("samples") / "0" / "hang", "MISBEHAVE-HANG");
    ASSERT_TRUE(service_.start());
    std::jthread scanning([this] { scan(); });
    std::this_thread::sleep_for(1s);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(service_.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

}  // namespace
