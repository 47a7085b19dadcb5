#include "service/realtime/watched_places.h"
#include "tests/unit/service/realtime/own_file_system.h"

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <thread>

using namespace keldra;

namespace {

/// What begins with "EICAR" counts as infected.
class OnAccessTest : public OwnFileSystem {
protected:
    void SetUp() override {
        OwnFileSystem::SetUp();
        settings_.incoming = true;
        settings_.folders = {shared()};
        settings_.timeLimit = 5s;
    }
    void TearDown() override {
        listener_.stop();
        OwnFileSystem::TearDown();
    }

    OnAccessAnswer scan(int fd, const std::string& path, const std::stop_token& stop) {
        ++scans_;
        if (meanwhile_) meanwhile_(stop);
        if (path.ends_with("slow") && !scanSlowly(stop)) return {};
        while (path.ends_with("hung") && !hungMayEnd_) std::this_thread::sleep_for(5ms);
        std::array<char, 5> head{};
        const bool bad = pread(fd, head.data(), head.size(), 0) == 5 && std::memcmp(head.data(), "EICAR", 5) == 0;
        const std::lock_guard lock(mutex_);
        scanned_.insert(path);
        OnAccessAnswer answer;
        answer.deny = answer.act = bad;
        answer.cacheable = !bad;
        answer.find = bad ? "Test" : "";
        return answer;
    }
    /// The scan of a huge file, which goes on until the test says so. False when it was stopped.
    bool scanSlowly(const std::stop_token& stop) const {
        for (int i = 0; i < 2000 && !slowMayEnd_ && !stop.stop_requested(); ++i) std::this_thread::sleep_for(10ms);
        return !stop.stop_requested();
    }
    void act(const std::string& path) {
        const std::lock_guard lock(mutex_);
        acted_.insert(path);
    }
    void forgetActed() {
        const std::lock_guard lock(mutex_);
        acted_.clear();
    }
    bool acted(const std::filesystem::path& path) {
        const std::lock_guard lock(mutex_);
        return acted_.count(path) != 0;
    }

    OnAccessSettings settings_;
    std::function<void(const std::stop_token&)> meanwhile_;
    std::atomic<int> scans_{0};
    std::atomic<bool> slowMayEnd_{false}, hungMayEnd_{false};
    std::mutex mutex_;
    std::set<std::string> scanned_, acted_;
    OnAccess listener_{{[this](int fd, const std::string& path, std::stop_token stop) { return scan(fd, path, stop); },
                        [this](int, const std::string& path, const OnAccessAnswer&) { act(path); }}};
};

TEST_F(OnAccessTest, AnInfectedFileIsRefusedActedOnAndOthersOpen) {
    ASSERT_TRUE(listener_.configure(settings_)) << listener_.problem();
    EXPECT_TRUE(listener_.running());
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM);
    EXPECT_TRUE(waitFor([&] { return acted(shared() / "bad.txt"); }));
    EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    EXPECT_FALSE(acted(shared() / "clean.txt"));
}

TEST_F(OnAccessTest, OnlyTheWatchedFoldersAreScanned) {
    writeFile(shared() / "quarantine" / "bad.txt", "EICAR");
    writeFile(root() / "share2" / "bad.txt", "EICAR");
    settings_.neverScan = {shared() / "quarantine/"};
    ASSERT_TRUE(listener_.configure(settings_));
    for (const char* name : {"elsewhere/bad.txt", "share2/bad.txt", "share/quarantine/bad.txt"})
        EXPECT_EQ(openElsewhere(root() / name), 0) << name;
    EXPECT_EQ(scans_, 0);
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM);

    // Whoever may write to the share cannot leave all of it out.
    std::filesystem::rename(shared() / "quarantine", shared() / "other");
    std::filesystem::create_directory_symlink(".", shared() / "quarantine");
    settings_.workers = 3;
    ASSERT_TRUE(listener_.configure(settings_));
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM);
}

TEST_F(OnAccessTest, NoNameHidesAFileFromTheScan) {
    ASSERT_TRUE(listener_.configure(settings_));
    writeFile(shared() / "bad (deleted)", "EICAR");
    EXPECT_EQ(openElsewhere(shared() / "bad (deleted)"), EPERM);
    EXPECT_TRUE(waitFor([&] { return acted(shared() / "bad (deleted)"); }));
    // Longer than any path that the kernel tells.
    std::filesystem::current_path(shared());
    for (int level = 0; level < 20; ++level) {
        const std::string name(250, 'd');
        ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
        ASSERT_EQ(chdir(name.c_str()), 0);
    }
    std::ofstream("bad.txt") << "EICAR";
    EXPECT_EQ(openElsewhere("bad.txt"), EPERM);
    std::filesystem::current_path("/");
}

TEST_F(OnAccessTest, NoMountLeadsAroundTheScan) {
    ASSERT_TRUE(listener_.configure(settings_));
    std::filesystem::create_directory(root() / "export");
    ASSERT_EQ(mount(shared().c_str(), (root() / "export").c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_TRUE(waitFor([&] { return openElsewhere(root() / "export" / "bad.txt") == EPERM; }));
    EXPECT_EQ(openElsewhere(root() / "elsewhere" / "bad.txt"), 0);

    // As in a container that was given the folder under another name.
    static std::filesystem::path from, to;
    std::filesystem::create_directory(to = root() / "data");
    const auto contain = [] {
        return unshare(CLONE_NEWNS) == 0 && mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) == 0;
    };
    from = shared();
    forgetActed();
    EXPECT_EQ(openElsewhere(to / "bad.txt", O_RDONLY, contain), EPERM);
    EXPECT_TRUE(waitFor([&] { return acted(shared() / "bad.txt"); })) << "by the name it has here";
    from = root() / "elsewhere";
    EXPECT_EQ(openElsewhere(to / "bad.txt", O_RDONLY, contain), 0);
}

TEST_F(OnAccessTest, TheServiceItselfIsNeverHeldUpByItsOwnListener) {
    meanwhile_ = [this](const std::stop_token&) { std::ifstream(shared() / "bad.txt").get(); };
    ASSERT_TRUE(listener_.configure(settings_));
    EXPECT_EQ(readFile(shared() / "bad.txt"), "EICAR");
    EXPECT_EQ(scans_, 0);
    EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    EXPECT_EQ(scans_, 1);
}

TEST_F(OnAccessTest, AScanThatTakesTooLongIsAnsweredByThePolicyAndStillActedOn) {
    meanwhile_ = [](const std::stop_token&) { std::this_thread::sleep_for(600ms); };
    settings_.timeLimit = 100ms;
    for (const bool deny : {false, true}) {
        settings_.denyOnTimeout = deny;
        ASSERT_TRUE(listener_.configure(settings_));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(openElsewhere(shared() / "bad.txt"), deny ? EPERM : 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 500ms);
        EXPECT_TRUE(waitFor([&] { return acted(shared() / "bad.txt"); }));
        forgetActed();
    }
}

TEST_F(OnAccessTest, FilesThatTakeTooLongDoNotKeepOthersFromBeingScanned) {
    settings_.timeLimit = 300ms;
    ASSERT_TRUE(listener_.configure(settings_));
    std::vector<std::future<int>> opened;
    for (const char* name : {"1.slow", "2.slow", "3.slow"}) {
        writeFile(shared() / name, "huge");
        opened.push_back(std::async(std::launch::async, [=, this] { return openElsewhere(shared() / name); }));
    }
    for (auto& each : opened) EXPECT_EQ(each.get(), 0);
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM) << "both workers are there again";
    EXPECT_TRUE(waitFor([&] {
        const int scans = scans_;
        return openElsewhere(shared() / "3.slow") == 0 && scans_ == scans;
    })) << "known to be slow: nobody waits again";
    slowMayEnd_ = true;
    EXPECT_TRUE(waitFor([&] {
        const std::lock_guard lock(mutex_);
        return scanned_.count(shared() / "1.slow") != 0;
    })) << "scanned all the same";
}

TEST_F(OnAccessTest, LeasesDelayNobodyButThoseWhoOpenTheFilesThatTheyAreOn) {
    constexpr int LEASES = 120;  // more than there are readers
    const auto leased = [this](int i) { return shared() / ("leased" + std::to_string(i)); };
    for (int i = 0; i < LEASES; ++i) writeFile(leased(i), "mine");
    const auto ready = root() / "elsewhere" / "ready";
    const Bystander holder([&] {
        signal(SIGIO, SIG_IGN);
        for (int i = 0; i < LEASES; ++i)
            if (fcntl(open(leased(i).c_str(), O_RDWR), F_SETLEASE, F_WRLCK) != 0) return;
        writeFile(ready, "");
    });
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(ready); })) << "this file system knows no leases";
    ASSERT_TRUE(listener_.configure(settings_));
    const Bystander first([&] { open(leased(0).c_str(), O_RDONLY); });
    std::this_thread::sleep_for(50ms);
    EXPECT_LT(timeOf([&] { EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM); }), 1s);

    std::vector<std::unique_ptr<Bystander>> openers;
    for (int i = 1; i < LEASES; ++i)
        openers.push_back(std::make_unique<Bystander>([&] { open(leased(i).c_str(), O_RDONLY); }));
    for (int i = 0; i < 20; ++i)
        EXPECT_LT(timeOf([&] { EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM); }), 1s) << i;
    EXPECT_LT(timeOf([&] { EXPECT_TRUE(listener_.stop()); }), 1s);
}

TEST_F(OnAccessTest, FilesThatHangCostTheirOpenersTheirTimeAndAreTold) {
    settings_.timeLimit = 500ms;
    ASSERT_TRUE(listener_.configure(settings_));
    std::vector<std::future<int>> opened;
    for (const char* name : {"1.hung", "2.hung", "3.hung", "4.hung"}) {
        writeFile(shared() / name, "unreachable");
        opened.push_back(std::async(std::launch::async, [=, this] { return openElsewhere(shared() / name); }));
    }
    EXPECT_TRUE(waitFor([&] { return listener_.status().hanging >= 2; }));
    EXPECT_LT(timeOf([&] { EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM); }), 2s);
    for (auto& each : opened) EXPECT_EQ(each.get(), 0);
    EXPECT_TRUE(listener_.running());

    settings_.workers = 3;
    EXPECT_LT(timeOf([&] { EXPECT_TRUE(listener_.configure(settings_)); }), 2s) << "new settings do not wait for them";
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM);
    EXPECT_LT(timeOf([&] { EXPECT_FALSE(listener_.stop()); }), 2s);
    hungMayEnd_ = true;
    EXPECT_TRUE(waitFor([&] { return listener_.stop(); })) << "those that come back are gone";
}

TEST_F(OnAccessTest, AUserWithManySlowFilesDelaysHisOwnOnly) {
    ASSERT_TRUE(listener_.configure(settings_));
    std::vector<std::unique_ptr<Bystander>> openers;
    for (int i = 0; i < 20; ++i) {
        const auto path = shared() / (std::to_string(i) + ".slow");
        writeFile(path, "bomb");
        openers.push_back(std::make_unique<Bystander>([path] {
            if (setuid(1001) == 0) open(path.c_str(), O_RDONLY);
        }));
    }
    EXPECT_TRUE(waitFor([&] { return scans_ >= 2; }));
    for (int i = 0; i < 3; ++i) EXPECT_LT(timeOf([&] { EXPECT_EQ(openElsewhere(shared() / "bad.txt"), EPERM); }), 2s);
}

TEST_F(OnAccessTest, ALargeFileIsScannedInOneGoBesideTheOthers) {
    settings_.scanTimes.quick = 100ms;
    ASSERT_TRUE(listener_.configure(settings_));
    const auto scansOf = [&](const std::filesystem::path& path) {
        const int before = scans_;
        auto opened = std::async(std::launch::async, [path] { return openElsewhere(path); });
        std::this_thread::sleep_for(600ms);
        slowMayEnd_ = true;
        EXPECT_EQ(opened.get(), 0);
        slowMayEnd_ = false;
        return scans_ - before;
    };
    writeFile(shared() / "large.slow", "a film");
    writeFile(shared() / "small.slow", "a bomb");
    std::filesystem::resize_file(shared() / "large.slow", 32U << 20U);
    EXPECT_EQ(scansOf(shared() / "large.slow"), 1);
    EXPECT_EQ(scansOf(shared() / "small.slow"), 2) << "made room when it had taken its time";
}

TEST_F(OnAccessTest, WhatDoesNotFitTheQueueDoesNotFreezeAnybody) {
    meanwhile_ = [](const std::stop_token& stop) {
        for (int i = 0; i < 500 && !stop.stop_requested(); ++i) std::this_thread::sleep_for(10ms);
    };
    settings_.workers = 1;
    settings_.queueLimit = 0;
    ASSERT_TRUE(listener_.configure(settings_));
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), 0);
    EXPECT_EQ(scans_, 0);
}

TEST_F(OnAccessTest, WhoeverWaitsGoesOnWhenTheListenerEnds) {
    meanwhile_ = [](const std::stop_token& stop) {
        while (!stop.stop_requested()) std::this_thread::sleep_for(5ms);
    };
    ASSERT_TRUE(listener_.configure(settings_));
    auto opened = std::async(std::launch::async, [this] { return openElsewhere(shared() / "clean.txt"); });
    EXPECT_TRUE(waitFor([&] { return scans_ == 1; }));
    listener_.stop();
    EXPECT_EQ(opened.get(), 0);
    EXPECT_FALSE(listener_.running());
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), 0);
}

TEST_F(OnAccessTest, WhatWasWrittenIsScannedAfterwards) {
    settings_.incoming = false;
    settings_.outgoing = true;
    ASSERT_TRUE(listener_.configure(settings_));
    EXPECT_EQ(openElsewhere(shared() / "bad.txt"), 0);
    EXPECT_EQ(scans_, 0);
    EXPECT_EQ(openElsewhere(shared() / "clean.txt", O_WRONLY | O_TRUNC), 0);
    EXPECT_TRUE(waitFor([&] { return acted(shared() / "clean.txt"); }));
}

TEST_F(OnAccessTest, ACleanFileIsAskedAboutAgainOnceItWasWrittenTo) {
    ASSERT_TRUE(listener_.configure(settings_));
    std::this_thread::sleep_for(3s);  // until the file counts as settled
    for (int i = 0; i < 5; ++i) EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    EXPECT_EQ(scans_, 1);
    listener_.forgetClean();
    EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    EXPECT_EQ(scans_, 2);
    writeFile(shared() / "clean.txt", "EICAR");
    EXPECT_EQ(openElsewhere(shared() / "clean.txt"), EPERM);
}

TEST_F(OnAccessTest, WhatAnyTaskIsPuttingAwayIsRefusedWhereverItLies) {
    settings_.ownFolders = {root() / "store"};
    std::filesystem::create_directory(root() / "store");
    ASSERT_TRUE(listener_.configure(settings_));
    std::this_thread::sleep_for(3s);  // until files count as settled
    for (int i = 0; i < 2; ++i) EXPECT_EQ(openElsewhere(shared() / "clean.txt"), 0);
    ASSERT_EQ(scans_, 1) << "remembered as clean";
    for (const char* const name : {"clean.txt", "bad.txt"}) {
        const FileDescriptor file(open((shared() / name).c_str(), O_RDONLY | O_CLOEXEC));
        {
            const auto action = listener_.beginAction(file.get(), shared() / name);
            EXPECT_EQ(openElsewhere(shared() / name), EPERM) << name;
            std::filesystem::rename(shared() / name, root() / "store" / name);
            EXPECT_EQ(openElsewhere(root() / "store" / name), EPERM) << name;
        }
        const bool bad = name == std::string("bad.txt");
        EXPECT_EQ(openElsewhere(root() / "store" / name), bad ? EPERM : 0) << name << " afterwards, by its content";
    }
    EXPECT_EQ(openElsewhere(root() / "elsewhere" / "bad.txt"), 0);
}

TEST_F(OnAccessTest, AFileSystemMountedLaterBelowAFolderIsWatchedToo) {
    ASSERT_TRUE(listener_.configure(settings_));
    mkdir((shared() / "usb").c_str(), 0755);
    ASSERT_EQ(mount("tmpfs", (shared() / "usb").c_str(), "tmpfs", 0, "size=1m"), 0);
    writeFile(shared() / "usb" / "bad.txt", "EICAR");
    EXPECT_TRUE(waitFor([&] { return openElsewhere(shared() / "usb" / "bad.txt") == EPERM; }));
}

TEST(WatchedPlaces, WhatAUserMountsBelowAFolderIsLeftOutAndTold) {
    const TempDir folder;
    const std::string share = folder.path();
    const Mount system{.id = 1, .device = "8:1", .root = "/", .point = "/"};
    const Mount server{.id = 2, .device = "0:50", .root = "/", .point = share + "/nfs", .remote = true};
    const Mount own{.id = 3, .device = "0:51", .root = "/", .point = share + "/own", .remote = true, .ofUser = true};
    OnAccessSettings settings;
    settings.folders = {share};
    const Places places = placesOf(settings, {system, server, own});
    EXPECT_EQ(places.toMark, (std::vector<PlaceToMark>{{share, ""}, {share + "/nfs", "0:50"}}));
    EXPECT_EQ(places.troubles, std::vector<std::string>{share + "/own is not watched: a user mounted it"});
}

TEST_F(OnAccessTest, AFolderMadeLaterIsWatchedWhereverItIsAndHoweverOftenItIsReplaced) {
    settings_.folders = {root() / "later"};
    ASSERT_FALSE(listener_.configure(settings_));
    const auto bad = root() / "later" / "bad.txt";
    const auto refused = [&] { return openElsewhere(bad) == EPERM; };
    writeFile(bad, "EICAR");
    EXPECT_TRUE(waitFor(refused)) << "made";
    EXPECT_TRUE(listener_.running());
    EXPECT_EQ(listener_.problem(), "");

    std::filesystem::rename(root() / "later", root() / "earlier");
    EXPECT_TRUE(waitFor([&] { return !listener_.running(); })) << "gone";
    EXPECT_EQ(openElsewhere(root() / "earlier" / "bad.txt"), 0);
    std::filesystem::create_directory_symlink(shared(), root() / "later");
    EXPECT_TRUE(waitFor(refused)) << "leads elsewhere";

    std::filesystem::remove(root() / "later");
    std::filesystem::create_directory(root() / "later");
    ASSERT_EQ(mount("tmpfs", (root() / "later").c_str(), "tmpfs", 0, "size=1m"), 0);
    writeFile(bad, "EICAR");
    EXPECT_TRUE(waitFor(refused)) << "another file system";
}

TEST_F(OnAccessTest, ManyAccessesAtOnceAreAllAnswered) {
    ASSERT_TRUE(listener_.configure(settings_));
    std::vector<std::future<int>> all;
    for (int i = 0; i < 60; ++i)
        all.push_back(std::async(std::launch::async,
                                 [&, i] { return openElsewhere(shared() / (i % 2 ? "bad.txt" : "clean.txt")); }));
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i].get(), i % 2 ? EPERM : 0);
}

TEST_F(OnAccessTest, SettingsThatCannotBeFollowedAreTold) {
    settings_.folders = {root() / "missing"};
    EXPECT_FALSE(listener_.configure(settings_));
    EXPECT_FALSE(listener_.running());
    EXPECT_EQ(listener_.problem(), "There is no folder to watch.");
    settings_.folders.push_back(shared());
    EXPECT_TRUE(listener_.configure(settings_));
    EXPECT_EQ(listener_.problem(), "");
    EXPECT_TRUE(listener_.configure({}));
    EXPECT_FALSE(listener_.running());
}

}  // namespace
