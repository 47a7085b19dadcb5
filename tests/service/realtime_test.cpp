#include "norv/scan_config.h"
#include "tests/harness/hanging_mount.h"
#include "tests/service/service_test.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <thread>

namespace {

using enum IPCMessage::CommandID;

/// The harmless file that every scanner takes for a virus, put together here so that no scanner takes this source for
/// it.
std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

/// What another program meets that opens a file: 0 or an errno; 255 when it hangs.
int openElsewhere(const std::filesystem::path& path) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(30);
        ::_exit(::open(path.c_str(), O_RDONLY) < 0 ? errno : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

bool waitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 500 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return condition();
}

/// The watched folder is a file system of its own in a mount namespace of its own, so that nothing else on the machine
/// is touched.
class RealtimeTest : public ServiceTest {
protected:
    void SetUp() override {
        const std::filesystem::path share = service_.file("samples");
        if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", share.c_str(), "tmpfs", 0, "size=16m") != 0)
            GTEST_SKIP() << "Real-time tests are skipped, they need a file system of their own: "
                         << std::strerror(errno);
        mounted_ = true;
        ASSERT_TRUE(service_.start());
        const IPCMessage status = get(SERVICE_STATUS);
        if (status.value<int>("RealtimeAllowed") != 1)
            GTEST_SKIP() << "Real-time tests are skipped. " << status.value<std::string>("RealtimeMessage");
    }
    void TearDown() override {
        service_.stop();
        if (mounted_) ::umount2(service_.file("samples").c_str(), MNT_DETACH);
    }

    /// Has a folder watched in these directions; finds are put into quarantine.
    void watch(uint32_t directions, const char* folder = "samples") {
        auto record = read<NORVRealtimeScanConfig>(REALTIME_SCAN_CONFIG, "RealtimeScanConfig");
        record.scanDirection = directions;
        record.universeAction = "2-2";
        record.scanPaths = service_.file(folder);
        ASSERT_EQ(store(REALTIME_SCAN_CONFIG, "RealtimeScanConfig", record).result, 1);
        ASSERT_TRUE(running());
    }
    bool running() const {
        return read<NORVRealtimeScanConfig>(REALTIME_SCAN_CONFIG, "RealtimeScanConfig").serviceRunning;
    }
    /// The id of the only file in quarantine, once it is there.
    std::string quarantined() const {
        waitFor([this] { return get(SERVICE_STATUS).value<int>("Quarantined") == 1; });
        const std::string list = service_.control({"quarantine", "list"}).output;
        return list.substr(0, list.find(' '));
    }

    bool mounted_ = false;
};

TEST_F(RealtimeTest, ADroppedVirusIsBlockedPutAwayAndComesBackAsItWas) {
    const std::filesystem::path dropped = service_.file("samples") / "incoming" / "eicar.com";
    writeFile(dropped, testFile());
    writeFile(service_.file("samples") / "clean.txt", "nothing\n");
    ASSERT_EQ(::chmod(dropped.c_str(), 0640), 0);
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING));

    EXPECT_EQ(openElsewhere(service_.file("samples") / "clean.txt"), 0);
    EXPECT_EQ(openElsewhere(dropped), EPERM);
    const std::string id = quarantined();
    ASSERT_EQ(id.size(), 32U) << id;
    EXPECT_EQ(openElsewhere(dropped), ENOENT);

    EXPECT_EQ(service_.control({"quarantine", "trust", id}).status, 0);
    EXPECT_EQ(service_.control({"quarantine", "restore", id}).status, 0);
    EXPECT_EQ(openElsewhere(dropped), 0) << "its content is trusted";
    EXPECT_EQ(readFile(dropped), testFile());
    struct stat status {};
    ASSERT_EQ(::stat(dropped.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(RealtimeTest, AVirusThatIsWrittenIsPutAwayWithoutBeingOpenedAgain) {
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::OUTGOING));
    writeFile(service_.file("samples") / "outgoing.com", testFile());
    EXPECT_EQ(quarantined().size(), 32U);
    EXPECT_FALSE(std::filesystem::exists(service_.file("samples") / "outgoing.com"));
}

TEST_F(RealtimeTest, AFolderThatWasMissingAtTheStartIsWatchedOnceItIsThere) {
    const std::filesystem::path folder = service_.file("samples") / "later";
    std::filesystem::create_directory(folder);
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING, "samples/later"));
    service_.stop();
    std::filesystem::remove(folder);
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(get(SERVICE_STATUS).value<std::string>("RealtimeMessage"), "There is no folder to watch.");
    EXPECT_FALSE(running());
    writeFile(folder / "eicar.com", testFile());
    EXPECT_TRUE(waitFor([this] { return running(); }));
    EXPECT_EQ(openElsewhere(folder / "eicar.com"), EPERM);
    EXPECT_EQ(quarantined().size(), 32U);
}

TEST_F(RealtimeTest, RunningIsSaidOfWhatGuardsAndOfWhatIsSwitchedOff) {
    EXPECT_TRUE(running()) << "switched off";
    EXPECT_EQ(get(SERVICE_STATUS).value<int>("RealtimeRunning"), 0);
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING));
    EXPECT_EQ(get(SERVICE_STATUS).value<int>("RealtimeRunning"), 1);
    EXPECT_EQ(get(SERVICE_STATUS).value<std::string>("RealtimeMessage"), "");
}

TEST_F(RealtimeTest, ArchivesThatGrowWithoutEndKeepNobodyElseWaitingAndNoVirusGoesUnseen) {
    const std::filesystem::path share = service_.file("samples");
    const std::filesystem::path zeros = service_.file("zeros");
    writeFile(zeros, "begin");
    std::filesystem::resize_file(zeros, 300U << 20U);
    for (const char* const name : {"1.zip", "2.zip"})
        ASSERT_EQ(std::system(("zip -q -j -1 " + (share / name).string() + " " + zeros.string()).c_str()), 0);
    for (int i = 0; i < 5; ++i) {
        writeFile(share / ("clean" + std::to_string(i)), "nothing");
        writeFile(share / ("eicar" + std::to_string(i)), testFile());
    }
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING));
    std::jthread one([&] { openElsewhere(share / "1.zip"); });
    std::jthread two([&] { openElsewhere(share / "2.zip"); });
    for (int i = 0; i < 5; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(openElsewhere(share / ("clean" + std::to_string(i))), 0);
        EXPECT_EQ(openElsewhere(share / ("eicar" + std::to_string(i))), EPERM);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    }
}

TEST_F(RealtimeTest, AFileSystemThatDoesNotAnswerIsToldDelaysNobodyAndKeepsNoServiceFromStarting) {
    const std::filesystem::path share = service_.file("samples");
    std::filesystem::create_directory(share / "mounted");
    std::optional<HangingMount> mount(std::in_place, share / "mounted");
    if (!mount->works()) GTEST_SKIP() << "The kernel lets nobody mount a file system of a program's own.";
    writeFile(share / "bad.com", testFile());
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING));
    std::thread opener([&] { openElsewhere(share / "mounted" / "hangs"); });
    EXPECT_TRUE(waitFor([this] { return get(SERVICE_STATUS).value<int>("RealtimeHanging") == 1; }));
    EXPECT_NE(get(SERVICE_STATUS).value<std::string>("Reasons").find("realtime_hanging"), std::string::npos);
    EXPECT_EQ(openElsewhere(share / "bad.com"), EPERM);

    const pid_t left = service_.pid();
    service_.leave();
    EXPECT_TRUE(
        waitFor([&] { return readFile("/proc/" + std::to_string(left) + "/stat").find(") Z") != std::string::npos; }));
    EXPECT_EQ(openElsewhere(share / "mounted"), 0);
    EXPECT_TRUE(service_.start()) << service_.printed();
    EXPECT_TRUE(waitFor([this] { return running(); }));
    mount.reset();
    opener.join();
}

TEST_F(RealtimeTest, AKilledServiceFreezesNobody) {
    writeFile(service_.file("samples") / "eicar.com", testFile());
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING | NORVRealtimeScanConfig::OUTGOING));
    service_.crash();
    EXPECT_EQ(openElsewhere(service_.file("samples") / "eicar.com"), 0);
    ASSERT_TRUE(service_.start());
    EXPECT_TRUE(running());
    EXPECT_EQ(openElsewhere(service_.file("samples") / "eicar.com"), EPERM) << "watched again after the start";
}

/// Scanners do what the first word of a file says.
class MisbehavingTest : public RealtimeTest {
protected:
    MisbehavingTest() { service_.environment["LD_PRELOAD"] = BINARY_DIR "/tests/libmisbehave.so"; }
};

TEST_F(MisbehavingTest, WithoutSignaturesNothingGuardsAndThatIsSaidAndTheSettingForTimeOutsHolds) {
    const std::filesystem::path file = service_.file("samples") / "eicar.com";
    writeFile(file, testFile());
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING));
    const std::string missing = service_.file("no-such-folder");
    for (const bool loading : {true, false}) {
        service_.stop();
        service_.environment["MISBEHAVE_LOAD"] = loading ? "MISBEHAVE-HANG" : "";
        if (!loading) service_.arguments = {"--signatures", missing};
        ASSERT_TRUE(service_.start());
        const IPCMessage status = get(SERVICE_STATUS);
        EXPECT_EQ(status.value<int>("RealtimeRunning"), 0);
        EXPECT_EQ(status.value<std::string>("RealtimeMessage"),
                  loading ? "Not guarding yet: the signatures are being loaded."
                          : "Not guarding: there are no signatures that can be used.");
        EXPECT_FALSE(running());
        const std::string verdict = service_.control({"status", "--json"}).output;
        for (const char* const reason : {"realtime_not_guarding", loading ? "signatures_loading" : "no_signatures"})
            EXPECT_NE(verdict.find(reason), std::string::npos) << verdict;
        EXPECT_EQ(verdict.find(missing) != std::string::npos, !loading) << verdict;
        for (const char* const refuse : {"1", "0"}) {
            ASSERT_EQ(service_.control({"settings", "set", "limits.realtime_refuse", refuse}).status, 0);
            EXPECT_EQ(openElsewhere(file), *refuse == '1' ? EPERM : 0);
        }
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(service_.stop(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    }
}

TEST_F(MisbehavingTest, NobodyReadsAVirusWhileSomebodyEndsScannersInALoop) {
    ASSERT_NO_FATAL_FAILURE(watch(NORVRealtimeScanConfig::INCOMING));
    const std::filesystem::path share = service_.file("samples");
    int crashes = 0;
    std::jthread attacker([&](const std::stop_token& stop) {
        for (; !stop.stop_requested(); ++crashes) {
            const std::filesystem::path file = share / ("crash" + std::to_string(crashes % 50));
            writeFile(file, "MISBEHAVE-CRASH " + std::to_string(crashes));
            openElsewhere(file);
        }
    });
    constexpr int TRIES = 200;
    int read = 0;
    for (int i = 0; i < TRIES; ++i) {
        const std::filesystem::path file = share / ("eicar" + std::to_string(i));
        writeFile(file, testFile());
        if (openElsewhere(file) == 0) ++read;
    }
    attacker.request_stop();
    attacker.join();
    EXPECT_EQ(read, 0);
    EXPECT_GT(crashes, 10);
    EXPECT_TRUE(running());
}

}  // namespace
