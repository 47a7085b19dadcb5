#include "norv/scan_config.h"
#include "tests/service/service_test.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <sstream>
#include <thread>
#include <vector>

// How the service ends in the middle of its work, and what a kill -9 leaves behind.

namespace {

using enum IPCMessage::CommandID;
namespace fs = std::filesystem;

constexpr std::size_t FILES = 60;

std::string testFile() {
    return std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
}

bool waitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 1500 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return condition();
}

size_t filesIn(const fs::path& folder) {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
}

/// Moves many infected files, in a folder on the file system of the service or on another one.
class QuarantineKillTest : public ServiceTest {
protected:
    void makeFiles(const fs::path& folder) {
        folder_ = folder;
        for (std::size_t i = 0; i < FILES; ++i) writeFile(folder_ / (std::to_string(i) + ".com"), testFile());
    }
    /// Of all that came from the folder and is in quarantine.
    std::vector<std::string> ids() const {
        std::vector<std::string> found;
        std::istringstream list(service_.control({"quarantine", "list"}).output);
        for (std::string line; std::getline(list, line);)
            if (line.find(folder_.string() + "/") != std::string::npos) found.push_back(line.substr(0, 32));
        return found;
    }
    /// Each file is in exactly one place, whole, and nothing half-moved lies about.
    void expectNothingLost() const {
        const size_t put = ids().size();
        EXPECT_EQ(filesIn(folder_) + put, FILES);
        EXPECT_EQ(filesIn(service_.file("state") / "quarantine"), 2 * put);
        for (const auto& entry : fs::directory_iterator(folder_)) {
            EXPECT_EQ(entry.path().extension(), ".com");
            EXPECT_EQ(readFile(entry.path()), testFile());
        }
    }
    /// Kills the service a while after each start of `work`, later each time, until it has brought about that `wanted`
    /// files are in the folder.
    void killDuring(std::size_t wanted, const std::function<void()>& work) {
        int midway = 0;
        for (int round = 1; round <= 60 && filesIn(folder_) != wanted; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            ASSERT_TRUE(service_.start()) << service_.printed();
            std::thread client(work);
            std::this_thread::sleep_for(std::chrono::milliseconds(5 * round));
            service_.crash();
            client.join();
            ASSERT_TRUE(service_.start()) << service_.printed();
            expectNothingLost();
            service_.stop();
            const size_t left = filesIn(folder_);
            if (left > 0 && left < FILES) ++midway;
        }
        EXPECT_EQ(filesIn(folder_), wanted);
        EXPECT_GT(midway, 0) << "no kill came in the middle, the test has shown nothing";
    }
    void killDuringMoves() {
        ASSERT_TRUE(service_.start());
        auto record = read<NORVManualScanConfig>(MANUAL_SCAN_CONFIG, "ManualScanConfig");
        record.universeAction = "2-2";
        ASSERT_EQ(store(MANUAL_SCAN_CONFIG, "ManualScanConfig", record).result, 1);
        service_.stop();
        killDuring(0, [this] { service_.control({"scan", "--act", folder_}); });
        killDuring(FILES, [this] {
            for (const std::string& id : ids())
                if (ask(IPCMessage::START, QUARANTINE_ITEM, "Id", id).result != 1) return;
        });
    }

    fs::path folder_;
};

TEST_F(QuarantineKillTest, LosesAndDoublesNoFile) {
    makeFiles(service_.file("samples"));
    killDuringMoves();
}

TEST_F(QuarantineKillTest, LosesAndDoublesNoFileAcrossFileSystems) {
    struct stat here {};
    struct stat there {};
    const fs::path other = "/dev/shm";
    if (::access(other.c_str(), W_OK) != 0 || ::stat(other.c_str(), &there) != 0 ||
        ::stat(service_.file("state").c_str(), &here) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << other << " is no other file system than the temporary folder";
    const fs::path folder = other / ("keldra-test-" + std::to_string(::getpid()));
    makeFiles(folder);
    killDuringMoves();
    fs::remove_all(folder);
}

class UpdateKillTest : public ServiceTest {
protected:
    UpdateKillTest() {
        // Updates are set up by hand, as an administrator does it.
        std::string text = readFile(service_.file("config.xml"));
        const std::string group = "<Group Type=\"Varnel\">";
        const auto at = text.find(group);
        EXPECT_NE(at, std::string::npos) << text;
        text.insert(at + group.size(), "<P Name=\"Source\" Value=\"custom\"/><P Name=\"CustomURLs\" Value=\"" +
                                           source().string() + "\"/>");
        writeFile(service_.file("config.xml"), text);
        service_.arguments.clear();  // no signatures but those of updates
        offer("Keldra.Old");
    }
    fs::path source() const { return service_.file("source") / "local.ndb"; }
    /// What the source has from now on: a name for the text "keldra".
    void offer(const std::string& name) { writeFile(source(), name + ":0:*:6b656c64726120\n"); }
    IPCMessage startUpdate(const std::string& id) const {
        IPCMessage request(IPCMessage::START, MANUAL_UPDATE);
        request.addParam("RequestID", id);
        request.addParam("ManualAUConfig", R"({"NORVManualAUConfig":{"components":33}})");
        return service_.ask(request).value_or(IPCMessage());
    }
    std::string progress(const std::string& id) const {
        return readFile(service_.file("var") / ("progress_" + id + ".txt"));
    }
    /// Runs an update to its end. What the console reads then.
    std::string update(const std::string& id) const {
        EXPECT_EQ(startUpdate(id).result, 1);
        EXPECT_TRUE(waitFor([this] { return get(UPDATE_STATUS).value<int>("Running") == 0; }));
        return progress(id);
    }
    /// The signature that a file of the text is found by.
    std::string found() const {
        writeFile(service_.file("samples") / "test.txt", "this is keldra text\n");
        return service_.control({"scan", service_.file("samples")}).output;
    }
};

TEST_F(UpdateKillTest, LeavesSignaturesInUseAndTheNextUpdateGoesThrough) {
    if (::access("/usr/bin/freshclam", X_OK) != 0)
        GTEST_SKIP() << "Tests of real updates are skipped: freshclam is not installed";
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(update("1"), "10");
    int id = 10;
    for (int round = 0; round < 8; ++round, id += 2) {
        SCOPED_TRACE("round " + std::to_string(round));
        offer("Keldra.New" + std::to_string(round));
        ASSERT_EQ(startUpdate(std::to_string(id)).result, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(15 * round));
        service_.crash();
        ASSERT_TRUE(service_.start()) << service_.printed();
        EXPECT_EQ(get(SERVICE_STATUS).value<std::string>("Database"), "loaded") << "old or new, never none";
        EXPECT_GT(progress(std::to_string(id)).size(), 1U) << "the console is told how it ended";
        EXPECT_THAT(update(std::to_string(id + 1)), testing::AnyOf("10", "All components are current."));
        EXPECT_THAT(found(), testing::HasSubstr("Keldra.New" + std::to_string(round)));
        for (const auto& entry : fs::directory_iterator(service_.file("state") / "signatures"))
            EXPECT_FALSE(entry.is_directory()) << entry.path();
    }
}

/// What lies on a disk is what its image holds; what was not synced is still in memory only.
TEST_F(UpdateKillTest, ThatWasToldAsDoneIsThereAfterAPowerCutAtThatMoment) {
    const fs::path disk = service_.file("disk");
    const fs::path later = service_.file("later");
    const fs::path signatures = service_.file("state") / "signatures";
    for (const fs::path& folder : {signatures, later}) fs::create_directories(folder);
    const auto mount = [](const fs::path& image, const fs::path& folder) {
        return std::system(("mount -o loop " + image.string() + " " + folder.string() + " 2>&1").c_str()) == 0;
    };
    writeFile(disk, "");
    fs::resize_file(disk, 16U << 20U);
    if (::access("/usr/bin/freshclam", X_OK) != 0 || ::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        std::system(("mkfs.ext4 -q -F " + disk.string()).c_str()) != 0 || !mount(disk, signatures))
        GTEST_SKIP() << "It needs freshclam and a disk of its own";
    fs::remove(signatures / "lost+found");
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(update("1"), "10");
    fs::copy_file(disk, service_.file("copy"));
    ASSERT_TRUE(mount(service_.file("copy"), later));
    EXPECT_EQ(readFile(later / "local.ndb"), readFile(source()));
    service_.stop();
    for (const fs::path& folder : {signatures, later}) ::umount2(folder.c_str(), MNT_DETACH);
}

TEST_F(UpdateKillTest, EndsWhatItStarted) {
    const fs::path program = service_.file("freshclam");
    writeFile(program, "#!/bin/sh\necho $$ > " + service_.file("pid").string() + "\nexec sleep 60\n");
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    service_.arguments = {"--freshclam", program};
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(startUpdate("5").result, 1);
    EXPECT_EQ(startUpdate("6").result, 2) << "one at a time";
    ASSERT_TRUE(waitFor([this] { return !readFile(service_.file("pid")).empty(); }));
    const std::string state = "/proc/" + std::to_string(std::stoi(readFile(service_.file("pid")))) + "/stat";
    service_.crash();
    EXPECT_TRUE(waitFor([&] { return readFile(state).empty() || readFile(state).find(") Z") != std::string::npos; }));
    ASSERT_TRUE(service_.start());
    EXPECT_EQ(progress("5"), "The update was interrupted because the service ended.");
    EXPECT_EQ(get(UPDATE_STATUS).value<int>("Running"), 0);
}

class LeftoverTest : public ServiceTest {};

TEST_F(LeftoverTest, OfEarlierKillsAreRemovedAndNothingElse) {
    const std::vector<fs::path> gone = {"state/tmp/unpacked/member", "state/sessions.new-a1B2c3",
                                        "state/history/1_1.json.new-a1B2c3", "config.xml.new-a1B2c3",
                                        "state/history/1_1.finds"};
    const std::vector<fs::path> kept = {"config.xml.backup", "other.new-a1B2c3", "state/password.new-a1B2c3"};
    for (const auto& files : {gone, kept})
        for (const fs::path& file : files) writeFile(service_.file(file.string()), "left");
    fs::permissions(service_.file("state") / "tmp", fs::perms::owner_all);
    const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours(48);
    for (const auto& files : {gone, kept})
        for (const fs::path& file : files) fs::last_write_time(service_.file(file.string()), longAgo);
    writeFile(service_.file(kept.back().string()), "just being written");
    ASSERT_TRUE(service_.start());
    for (const fs::path& file : gone) EXPECT_FALSE(fs::exists(service_.file(file.string()))) << file;
    for (const fs::path& file : kept) EXPECT_TRUE(fs::exists(service_.file(file.string()))) << file;
}

class StopTest : public ServiceTest {};

TEST_F(StopTest, WhileSignaturesAreLoadedIsNoCrash) {
    std::ostringstream hashes;
    for (int i = 0; i < 100000; ++i) hashes << std::setfill('0') << std::setw(32) << i << ":1000:Keldra." << i << '\n';
    writeFile(service_.file("many") / "many.hdb", hashes.str());
    service_.arguments = {"--signatures", service_.file("many")};
    ASSERT_TRUE(service_.start());
    ASSERT_EQ(::kill(service_.pid(), SIGHUP), 0);
    EXPECT_EQ(service_.stop(std::chrono::seconds(60)), 0);
}

}  // namespace
