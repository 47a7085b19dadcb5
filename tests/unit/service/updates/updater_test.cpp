#include "service/updates/updater.h"

#include "service/updates/freshclam_plan.h"
#include "service/updates/freshclam_progress.h"
#include "service/updates/update_messages.h"
#include "tests/harness/temp_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

using namespace keldra;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* FRESHCLAM = "/usr/bin/freshclam";
constexpr uint8_t ALL = UPDATE_VIRUS_PATTERN | UPDATE_SCAN_ENGINE | UPDATE_SPYWARE_PATTERN;

std::string signature(const std::string& name) {
    return name + ":0:*:6b656c647261207465737420" + "7369676e6174757265\n";
}

class TestClock : public Clock {
public:
    int64_t now() const override { return time(nullptr); }
    int64_t steadyMilliseconds() const override { return time(nullptr) * 1000; }
};

class UpdaterTest : public ::testing::Test {
protected:
    UpdaterTest() {
        settings_.state = folder_ / "state";
        settings_.signatures = folder_ / "state/signatures";
        settings_.timeLimit = 60;
        std::filesystem::create_directories(settings_.signatures);
        std::filesystem::create_directories(folder_ / "var");
        config_.source = "custom";
        config_.customURLs = folder_ / "source/test.ndb";
        writeFile(folder_ / "source/test.ndb", signature("Keldra.Test"));
    }
    void TearDown() override {
        if (updater_) updater_->stop();
    }

    Updater& updater() {
        if (!updater_)
            updater_ = std::make_unique<Updater>(
                settings_,
                UpdaterHooks{[this] { return config_; }, [this] { return (folder_ / "var").string(); },
                             [] { return std::string("1.4.6"); }, [this] { return ++reloads_, reload_(); }},
                clock_);
        return *updater_;
    }
    /// Instead of freshclam: a shell script.
    void standIn(const std::string& script) {
        writeFile(folder_ / "freshclam", "#!/bin/sh\n" + script + "\n");
        chmod((folder_ / "freshclam").c_str(), 0755);
        settings_.freshclam = folder_ / "freshclam";
    }
    std::filesystem::path progressFile(const std::string& id) { return folder_ / "var" / ("progress_" + id + ".txt"); }
    std::string progress(const std::string& id) { return readFile(progressFile(id)); }
    static bool waitFor(const std::function<bool()>& condition) {
        for (int i = 0; i < 3000 && !condition(); ++i) std::this_thread::sleep_for(10ms);
        return condition();
    }
    /// Runs an update to its end and returns what the console would read.
    std::string run(const std::string& id, uint8_t components = ALL) {
        EXPECT_TRUE(updater().startManual(id, components));
        EXPECT_TRUE(waitFor([this] { return !updater().status().running; }));
        return progress(id);
    }
    pid_t childPid() {
        waitFor([this] { return !readFile(folder_ / "pid").empty(); });
        return std::stoi("0" + readFile(folder_ / "pid"));
    }

    TempDir folder_;
    TestClock clock_;
    UpdaterSettings settings_;
    NORVAUConfig config_;
    std::function<bool()> reload_ = [] { return true; };
    int reloads_ = 0;
    std::unique_ptr<Updater> updater_;
};

/// With the real program, from local files.
class RealUpdate : public UpdaterTest {
protected:
    void SetUp() override {
        if (access(FRESHCLAM, X_OK) != 0)
            GTEST_SKIP() << "Tests of real updates are skipped: freshclam is not installed";
    }
};

TEST_F(RealUpdate, NewSignaturesAreInstalledLoadedAndShown) {
    EXPECT_EQ(run("1_2"), "10");
    EXPECT_EQ(reloads_, 1);
    EXPECT_EQ(readFile(settings_.signatures / "test.ndb"), signature("Keldra.Test"));
    const ComponentVersions versions = updater().versions();
    EXPECT_EQ(versions.engineVersion, "1.4.6");
    EXPECT_EQ(versions.virusPatternVersion.size(), 15U);
    EXPECT_EQ(versions.virusPatternVersion, versions.spywarePatternVersion);
    EXPECT_EQ(versions.virusPatternLastUpdate.size(), 19U);
    EXPECT_FALSE(std::filesystem::exists(settings_.state / "freshclam.conf"));
    struct stat status {};
    ASSERT_EQ(stat(progressFile("1_2").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0660U);
}

TEST_F(RealUpdate, AnUnchangedSourceIsReportedAsCurrentAlsoAfterARestart) {
    run("1");
    const std::string version = updater().versions().virusPatternVersion;
    std::this_thread::sleep_for(1100ms);  // a version made anew would differ
    updater_.reset();
    EXPECT_EQ(run("2"), "All components are current.");
    EXPECT_EQ(reloads_, 1);
    EXPECT_EQ(updater().versions().virusPatternVersion, version);
    writeFile(folder_ / "source/test.ndb", signature("Keldra.Test2"));
    EXPECT_EQ(run("3"), "10");
    EXPECT_NE(updater().versions().virusPatternVersion, version);
}

TEST_F(RealUpdate, ADamagedOrMissingSourceLeavesTheOldDatabase) {
    run("1");
    writeFile(folder_ / "source/test.ndb", "this is no signature");
    EXPECT_EQ(run("2"), "The new database is damaged; the old one stays in use.");
    std::filesystem::remove(folder_ / "source/test.ndb");
    EXPECT_EQ(run("3"), "A file or URL of the update source cannot be read.");
    EXPECT_EQ(readFile(settings_.signatures / "test.ndb"), signature("Keldra.Test"));
    EXPECT_EQ(reloads_, 1);
}

TEST_F(RealUpdate, OnlyTheSelectedPatternIsFetched) {
    config_.customURLs += ";" + (folder_ / "source/spyware.ndb").string();
    writeFile(folder_ / "source/spyware.ndb", signature("Keldra.Spyware"));
    EXPECT_EQ(run("1", UPDATE_SPYWARE_PATTERN), "10");
    EXPECT_FALSE(std::filesystem::exists(settings_.signatures / "test.ndb"));
    EXPECT_EQ(updater().versions().virusPatternVersion, "");
    EXPECT_EQ(run("2", UPDATE_VIRUS_PATTERN), "10");
    EXPECT_NE(updater().versions().virusPatternVersion, "");
}

TEST_F(RealUpdate, ADatabaseThatTheEngineRefusesIsReportedAndLoadedAgainUntilItIsInUse) {
    reload_ = [] { return false; };
    for (const char* id : {"1", "2"}) {
        EXPECT_EQ(run(id), "The new database cannot be loaded; the old one stays in use.");
        EXPECT_FALSE(updater().status().succeeded);
    }
    reload_ = [] { return true; };
    EXPECT_EQ(run("3"), "10");
    EXPECT_EQ(reloads_, 3);
    EXPECT_EQ(run("4"), "All components are current.");
}

TEST_F(UpdaterTest, OneUpdateAtATimeAndARepeatOfItIsNoSecondOne) {
    standIn("echo $$ > " + (folder_ / "pid").string() + "; exec sleep 60");
    ASSERT_TRUE(updater().startManual("7", ALL));
    EXPECT_TRUE(updater().startManual("7", ALL));
    EXPECT_FALSE(updater().startManual("8", ALL));
    EXPECT_FALSE(updater().startScheduled(ALL));
    EXPECT_TRUE(waitFor([this] { return progress("7") == "1"; }));
    writeFile(progressFile("7"), "DUPLICATE");  // as the console does when it takes the repeat for refused
    EXPECT_TRUE(waitFor([this] { return progress("7") == "1"; }));
    const pid_t child = childPid();
    updater().stop();
    EXPECT_EQ(progress("7"), "The update was interrupted because the service ended.");
    EXPECT_NE(kill(child, 0), 0);
    EXPECT_FALSE(updater().startManual("9", ALL));
}

TEST_F(UpdaterTest, AnUpdateThatHangsIsEndedWithAllItStarted) {
    standIn("trap '' TERM; sleep 60 & echo $! > " + (folder_ / "pid").string() + "; wait; sleep 60");
    settings_.timeLimit = 1;
    EXPECT_EQ(run("1"), "The update took too long and was ended.");
    EXPECT_TRUE(waitFor([child = childPid()] { return kill(child, 0) != 0 || waitpid(child, nullptr, WNOHANG) != 0; }));
}

TEST_F(UpdaterTest, WhatFetchesHasNeitherOurFilesNorOurRights) {
    writeFile(folder_ / "secret", "");
    const int secret = open((folder_ / "secret").c_str(), O_RDONLY);  // as a socket of a library: not closed by exec
    const std::string seen = folder_ / "seen";
    standIn("{ ls -l /proc/$$/fd; grep Amb /proc/$$/status; } > " + seen);
    run("1");
    close(secret);
    EXPECT_THAT(readFile(seen), Not(HasSubstr("secret")));
    EXPECT_THAT(readFile(seen), HasSubstr("CapAmb:\t0000000000000000"));
}

/// Started by root for another user.
class OwnedUpdate : public UpdaterTest {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "Only root may run programs as another user";
        settings_.databaseOwner = "nobody";
        for (const auto& folder : {folder_ / "", settings_.state, folder_ / "source"}) chmod(folder.c_str(), 0711);
    }
};

TEST_F(OwnedUpdate, TheOtherUserFetchesAndEndsWithAKilledService) {
    if (access(FRESHCLAM, X_OK) == 0) {
        EXPECT_EQ(run("1"), "10");
    }
    updater_.reset();
    standIn("id -un > " + (settings_.signatures / "user").string() + "; echo $$ > " +
            (settings_.signatures / "pid").string() + "; exec sleep 60");
    const pid_t service = fork();
    if (service == 0) {
        updater().startManual("5", ALL);
        std::this_thread::sleep_for(60s);
        _exit(0);
    }
    ASSERT_TRUE(waitFor([this] { return !readFile(settings_.signatures / "pid").empty(); }));
    const std::string child = readFile(settings_.signatures / "pid");
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
    EXPECT_EQ(readFile(settings_.signatures / "user"), "nobody\n");
    const std::string state = "/proc/" + child.substr(0, child.size() - 1) + "/stat";
    EXPECT_TRUE(waitFor([&] { return readFile(state).empty() || readFile(state).find(") Z") != std::string::npos; }));
}

TEST_F(OwnedUpdate, AnUnknownUserIsAFailure) {
    settings_.databaseOwner = "keldra-no-such-user";
    EXPECT_THAT(run("1"), HasSubstr("cannot be stored"));
}

TEST_F(UpdaterTest, ACrashOfTheServiceEndsItsUpdateAndClosesItsProgress) {
    standIn("echo $$ > " + (folder_ / "pid").string() + "; mkdir " + (settings_.signatures / "tmp.1").string() +
            "; exec sleep 60");
    const pid_t service = fork();
    if (service == 0) {
        updater().startManual("5", ALL);
        std::this_thread::sleep_for(60s);
        _exit(0);
    }
    const pid_t child = childPid();
    EXPECT_TRUE(waitFor([this] { return progress("5") == "1"; }));
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
    const std::string state = "/proc/" + std::to_string(child) + "/stat";
    EXPECT_TRUE(waitFor([&] { return readFile(state).empty() || readFile(state).find(") Z") != std::string::npos; }));
    updater().recover();
    EXPECT_EQ(progress("5"), "The update was interrupted because the service ended.");
    EXPECT_FALSE(std::filesystem::exists(settings_.signatures / "tmp.1"));
}

TEST_F(UpdaterTest, EveryWayToFailHasAReasonThatTheConsoleShowsAsAFailure) {
    const std::pair<const char*, const char*> cases[] = {
        {"exit 9", "settings"}, {"exit 11", "reached"},    {"exit 12", "reached"},      {"exit 18", "later"},
        {"exit 10", "stored"},  {"exit 77", "has failed"}, {"kill -9 $$", "has failed"}};
    int id = 0;
    for (const auto& [script, text] : cases) {
        standIn(script);
        EXPECT_THAT(run(std::to_string(++id)), HasSubstr(text)) << script;
        updater_.reset();
    }
    settings_.freshclam = folder_ / "missing";
    EXPECT_THAT(run("20"), HasSubstr("cannot be started"));
    EXPECT_THAT(run("21", 0), HasSubstr("No component"));
    config_.customURLs = "ftp://example.invalid/x.ndb";
    EXPECT_THAT(run("22"), HasSubstr("settings"));
    config_.customURLs = "";
    EXPECT_THAT(run("23"), HasSubstr("No update source"));
    for (int i = 1; i <= 23; ++i) EXPECT_THAT(progress(std::to_string(i)), Not(HasSubstr("current")));
    for (const std::string& message : updateMessages()) EXPECT_EQ(message.find_first_of("%\r\n"), std::string::npos);
    EXPECT_THAT(run("24", UPDATE_SCAN_ENGINE), HasSubstr("current"));
}

TEST_F(UpdaterTest, SignaturesThatCouldNotBeLoadedAtTheStartAreLoadedByAnUpdateThatBringsNothing) {
    standIn("exit 0");
    updater().noteComponents(false);
    EXPECT_EQ(run("1"), "10");
    EXPECT_EQ(run("2"), "All components are current.");
    EXPECT_EQ(reloads_, 1);
}

TEST_F(UpdaterTest, WhatCannotBeReadOrIsNotInUseIsNoSuccess) {
    standIn("mkdir -p " + (settings_.signatures / "x").string() + "; ln -s x/y " +
            (settings_.signatures / "test.ndb").string() + "; echo s > " + (settings_.signatures / "x/y").string());
    ASSERT_EQ(run("1"), "10");
    std::filesystem::remove(settings_.signatures / "test.ndb");
    standIn("exit 0");
    updater_.reset();
    writeFile(settings_.signatures / "by-hand.ndb", "copied here while the service ran");
    reload_ = [] { return false; };
    EXPECT_THAT(run("2"), HasSubstr("cannot be loaded"));
    reload_ = [] { return true; };
    EXPECT_EQ(run("3"), "10");
    std::filesystem::rename(settings_.signatures, folder_ / "aside");
    std::filesystem::create_symlink(settings_.signatures, settings_.signatures);  // nobody can look into it
    EXPECT_THAT(run("4"), testing::AnyOf(HasSubstr("cannot be read"), HasSubstr("cannot be stored")));
}

TEST(FailureWatch, NamesAppArmorWhereItIsTheReason) {
    FailureWatch watch;
    watch.line("Testing database ...");
    EXPECT_THAT(watch.messageOf({.status = 9, .confinement = "freshclam (enforce)"}), HasSubstr("settings"));
    watch.line("ERROR: Can't open /srv/signatures/freshclam.log in append mode (Permission denied)");
    EXPECT_THAT(watch.messageOf({.status = 9, .confinement = "freshclam (enforce)"}), HasSubstr("AppArmor"));
    EXPECT_THAT(watch.messageOf({.status = 9, .confinement = "freshclam (complain)"}), HasSubstr("settings"));
    EXPECT_THAT(watch.messageOf({.status = 10, .confinement = ""}), HasSubstr("stored"));
}

TEST_F(UpdaterTest, AFaultOfTheServiceItselfEndsTheUpdateAndNotTheService) {
    reload_ = []() -> bool { throw std::bad_alloc(); };
    standIn("echo x > " + (settings_.signatures / "new.ndb").string());
    EXPECT_THAT(run("1"), HasSubstr("has failed"));
    reload_ = [] { return true; };
    EXPECT_EQ(run("2"), "10");
}

TEST_F(UpdaterTest, TheConsoleCannotNameAnyOtherFile) {
    for (const char* id : {"", "../1", "1/2", "a", "1.2", " 1", "1\n"}) EXPECT_FALSE(updater().startManual(id, ALL));
    EXPECT_FALSE(isUpdateId(std::string(242, '1')));
    EXPECT_TRUE(isUpdateId(std::string(241, '1')));
    standIn("exit 0");
    updater_.reset();
    EXPECT_EQ(run(std::string(241, '1')), "All components are current.");
}

TEST_F(UpdaterTest, OldProgressFilesGoAwayAndTheRunningOneStays) {
    settings_.progressFiles = 3;
    for (int i = 0; i < 10; ++i) writeFile(progressFile(std::to_string(i)), "DUPLICATE");
    std::filesystem::last_write_time(progressFile("9"), std::filesystem::file_time_type::clock::now() - 48h);
    writeFile(folder_ / "var/HVDefaultExt.txt", "kept");
    standIn("exec sleep 60");
    ASSERT_TRUE(updater().startManual("9", ALL));
    updater().cleanUp();
    EXPECT_TRUE(waitFor([this] { return progress("9") == "1"; }));
    size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder_ / "var")) ++files;
    EXPECT_LE(files, 5U);
    EXPECT_EQ(readFile(folder_ / "var/HVDefaultExt.txt"), "kept");
}

TEST_F(UpdaterTest, VersionsOfOfficialDatabasesComeFromTheirHeaders) {
    writeFile(settings_.signatures / "daily.cld", "ClamAV-VDB:16 Sep 2026 08-32 -0400:27500:1:90:x:y:z:1:");
    writeFile(settings_.signatures / "main.cvd", "ClamAV-VDB:16 Sep 2021 08-32 -0400:62:1:90:x:y:z:1:");
    writeFile(settings_.signatures / "freshclam.dat", "x");
    updater().noteComponents();
    EXPECT_EQ(updater().versions().virusPatternVersion, "27500");
    EXPECT_EQ(updater().versions().spywarePatternVersion, "27500");
    writeFile(settings_.signatures / "adware.hdb", "x");
    updater().noteComponents();
    EXPECT_THAT(updater().versions().spywarePatternVersion, testing::StartsWith("27500+20"));
    EXPECT_EQ(updater().versions().virusPatternVersion, "27500");
}

TEST(FreshclamPlan, SettingsCannotSmuggleLinesIntoItsConfiguration) {
    const FreshclamPlaces places{.signatures = "/s", .log = "/l", .owner = "root"};
    for (const char* bad : {"a\nOnUpdateExecute /bin/sh", "a\"b", "#a", "a\rb"}) {
        NORVAUConfig config;
        config.source = "mirror";
        config.mirror = bad;
        EXPECT_EQ(planFreshclam(config, ALL, places).problem, FreshclamPlan::Problem::BAD_SETTING) << bad;
        config.mirror = "http://mirror.example";
        config.proxyServer = bad;
        EXPECT_EQ(planFreshclam(config, ALL, places).problem, FreshclamPlan::Problem::BAD_SETTING) << bad;
    }
}

TEST(FreshclamPlan, TheSelectionChoosesTheDatabases) {
    const FreshclamPlaces places{.signatures = "/s", .log = "/l", .owner = "root"};
    NORVAUConfig config;
    EXPECT_THAT(planFreshclam(config, UPDATE_VIRUS_PATTERN, places).databases,
                testing::ElementsAre("main", "daily", "bytecode"));
    EXPECT_THAT(planFreshclam(config, UPDATE_SPYWARE_PATTERN, places).databases, testing::ElementsAre("main", "daily"));
    config.source = "custom";
    config.customURLs = "/a/virus.ndb;https://example.invalid/My-SpyWare.ndb;/my files/b.hdb";
    const std::string all = planFreshclam(config, ALL, places).configuration;
    EXPECT_THAT(all, HasSubstr("DatabaseCustomURL file:///a/virus.ndb\n"));
    EXPECT_THAT(all, HasSubstr("DatabaseCustomURL \"file:///my files/b.hdb\"\n"));
    EXPECT_EQ(planFreshclam(config, ALL, places).expected, 3);
    EXPECT_EQ(planFreshclam(config, UPDATE_SPYWARE_PATTERN, places).expected, 1);
    EXPECT_EQ(planFreshclam(config, UPDATE_VIRUS_PATTERN, places).expected, 2);
}

TEST(FreshclamProgress, ItGrowsWithTheDatabasesAndStaysBelowTheEnd) {
    FreshclamProgress progress(2);
    EXPECT_EQ(progress.tenths(), 1);
    progress.line("Downloading main.cvd [ 50%]");
    EXPECT_EQ(progress.tenths(), 3);
    progress.line("main.cvd updated (version: 62, sigs: 6647427, f-level: 90, builder: sigmgr)");
    EXPECT_EQ(progress.tenths(), 5);
    progress.line("Downloading daily.cvd [100%]");
    EXPECT_EQ(progress.tenths(), 9);
    progress.line("daily.cvd database is up-to-date (version: 27500)");
    progress.line("bytecode.cvd database is up-to-date (version: 3)");
    progress.line("Downloading more [999999999999999%]");
    EXPECT_EQ(progress.tenths(), 9);
}

}  // namespace
