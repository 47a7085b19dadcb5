#include "service/quarantine/quarantine.h"

#include "service/tree/file_transfer.h"
#include "tests/unit/service/scan_fixture.h"
#include "tests/unit/service/test_clock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>

namespace keldra {
namespace {

namespace fs = std::filesystem;

constexpr mode_t MODE = 0741;
constexpr int64_t MODIFIED = 1234567890;

/// A folder on another file system than the temporary one, or none.
std::unique_ptr<fs::path> otherFileSystem() {
    std::array<char, 32> name{"/dev/shm/keldra-test-XXXXXX"};
    struct stat here {};
    struct stat there {};
    if (::stat("/dev/shm", &there) != 0 || ::stat(fs::temp_directory_path().c_str(), &here) != 0) return nullptr;
    if (here.st_dev == there.st_dev || ::mkdtemp(name.data()) == nullptr) return nullptr;
    return std::make_unique<fs::path>(name.data());
}

class QuarantineTest : public testing::Test {
protected:
    QuarantineTest() { restart(); }
    ~QuarantineTest() override {
        if (other_) fs::remove_all(*other_);
    }

    /// What a restart of the service does.
    void restart() {
        quarantine_ = std::make_unique<Quarantine>((dir_ / "store").string(), (dir_ / "trusted").string());
        ASSERT_TRUE(quarantine_->open());
    }

    fs::path bad(const fs::path& path) {
        ::writeFile(path, CONTENT);
        ::chmod(path.c_str(), MODE);
        const std::array<timespec, 2> times{timespec{MODIFIED - 5, 7}, timespec{MODIFIED, 123456789}};
        ::utimensat(AT_FDCWD, path.c_str(), times.data(), 0);
        return path;
    }
    fs::path bad() { return bad(dir_ / "share/virus"); }

    QuarantineResult take(const fs::path& path) {
        return quarantine_->take(opened(path), {"Win.Virus.X", "Virus", "7_1"});
    }

    std::size_t filesInStore() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_ / "store"), {}));
    }

    void expectRestored(const fs::path& path) {
        EXPECT_EQ(::readFile(path), CONTENT);
        struct stat status {};
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, MODE);
        EXPECT_EQ(status.st_uid, ::geteuid());
        EXPECT_EQ(status.st_mtim.tv_sec, MODIFIED);
        EXPECT_EQ(status.st_mtim.tv_nsec, 123456789);
    }

    static constexpr const char* CONTENT = "bad content";
    std::string id_;
    TempDir dir_;
    std::unique_ptr<fs::path> other_;
    std::unique_ptr<Quarantine> quarantine_;
};

TEST_F(QuarantineTest, FileIsPutAwaySealedAndComesBackAsItWas) {
    const QuarantineResult taken = take(bad());
    ASSERT_TRUE(taken.done) << taken.message;
    EXPECT_FALSE(fs::exists(dir_ / "share/virus"));
    struct stat status {};
    ASSERT_EQ(::stat((dir_ / ("store/" + taken.id + ".data")).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    restart();
    const std::optional<QuarantineItem> item = quarantine_->find(taken.id);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->path, fs::canonical(dir_ / "share") / "virus");
    EXPECT_EQ(item->signature, "Win.Virus.X");
    EXPECT_EQ(item->task, "7_1");
    EXPECT_EQ(item->sha256, sha256Of(opened(dir_ / ("store/" + taken.id + ".data")).file.get()));
    ASSERT_TRUE(quarantine_->restore(taken.id).done);
    expectRestored(dir_ / "share/virus");
    EXPECT_EQ(filesInStore(), 0U);
}

TEST_F(QuarantineTest, FileOfAnotherFileSystemIsPutAwayAndComesBackAsItWas) {
    other_ = otherFileSystem();
    if (!other_) GTEST_SKIP() << "/dev/shm is no other file system than the temporary folder";
    const QuarantineResult taken = take(bad(*other_ / "virus"));
    ASSERT_TRUE(taken.done) << taken.message;
    EXPECT_TRUE(fs::is_empty(*other_));
    ASSERT_TRUE(quarantine_->restore(taken.id).done);
    expectRestored(*other_ / "virus");
    EXPECT_EQ(filesInStore(), 0U);
}

TEST_F(QuarantineTest, FileWithMoreAttributesThanARecordHoldsIsNotLost) {
    other_ = otherFileSystem();
    if (!other_) GTEST_SKIP() << "/dev/shm is no other file system than the temporary folder";
    const fs::path path = bad(*other_ / "virus");
    const std::string value(60000, 'x');
    for (int i = 0; i < 250; ++i)
        if (::setxattr(path.c_str(), ("user." + std::to_string(i)).c_str(), value.data(), value.size(), 0) != 0)
            GTEST_SKIP() << "not as many here";
    const QuarantineResult taken = take(path);
    ASSERT_TRUE(taken.done) << taken.message;
    restart();
    ASSERT_TRUE(quarantine_->find(taken.id));
    EXPECT_TRUE(quarantine_->restore(taken.id).done);
    EXPECT_EQ(::readFile(path), CONTENT);
}

TEST_F(QuarantineTest, OtherNamesOfTheSameFileKeepTheirMode) {
    fs::create_hard_link(bad(), dir_ / "share/other");
    ASSERT_TRUE(take(dir_ / "share/virus").done);
    EXPECT_FALSE(fs::exists(dir_ / "share/virus"));
    expectRestored(dir_ / "share/other");
}

TEST_F(QuarantineTest, SameNamesAndOddNamesAreKeptApart) {
    const std::string odd = "a\"\n\\\xff;b";
    ASSERT_TRUE(take(bad()).done);
    ASSERT_TRUE(take(bad()).done);
    const QuarantineResult taken = take(bad(dir_ / odd));
    restart();
    EXPECT_EQ(quarantine_->list().size(), 3U);
    EXPECT_TRUE(quarantine_->restore(taken.id).done);
    expectRestored(dir_ / odd);
}

TEST_F(QuarantineTest, FileThatTookTheNameMeanwhileIsNotTouched) {
    const ScannedFile file = opened(bad());
    fs::rename(dir_ / "share/virus", dir_ / "share/moved");
    ::writeFile(dir_ / "share/virus", "innocent");
    EXPECT_FALSE(quarantine_->take(file, {}).done);
    EXPECT_EQ(::readFile(dir_ / "share/virus"), "innocent");
    EXPECT_EQ(::readFile(dir_ / "share/moved"), CONTENT);
    EXPECT_EQ(filesInStore(), 0U);
}

TEST_F(QuarantineTest, RestoreOverwritesNothing) {
    const QuarantineResult taken = take(bad());
    ::writeFile(dir_ / "share/virus", "newer");
    const QuarantineResult restored = quarantine_->restore(taken.id);
    EXPECT_FALSE(restored.done);
    EXPECT_NE(restored.message.find("nothing was overwritten"), std::string::npos);
    EXPECT_EQ(::readFile(dir_ / "share/virus"), "newer");
    EXPECT_EQ(quarantine_->list().size(), 1U);
}

TEST_F(QuarantineTest, WhatWasChangedWhileItLayInQuarantineDoesNotComeBack) {
    bad();
    const FileDescriptor writer(::open((dir_ / "share/virus").c_str(), O_WRONLY));
    const QuarantineResult taken = take(dir_ / "share/virus");
    ASSERT_EQ(::write(writer.get(), "even worse!", 11), 11);
    const QuarantineResult restored = quarantine_->restore(taken.id);
    EXPECT_EQ(restored.message, "The quarantined file cannot be read as it was stored.");
    EXPECT_TRUE(fs::is_empty(dir_ / "share"));
    EXPECT_EQ(quarantine_->list().size(), 1U);
}

TEST_F(QuarantineTest, RestoreGoesNeitherToAGoneFolderNorThroughALink) {
    const QuarantineResult taken = take(bad());
    fs::remove(dir_ / "share");
    EXPECT_NE(quarantine_->restore(taken.id).message.find("does not exist any more"), std::string::npos);
    fs::create_directory(dir_ / "elsewhere");
    fs::create_directory_symlink("elsewhere", dir_ / "share");
    EXPECT_FALSE(quarantine_->restore(taken.id).done) << "somebody could have it put anywhere";
    EXPECT_TRUE(fs::is_empty(dir_ / "elsewhere"));
    EXPECT_EQ(quarantine_->list().size(), 1U);
}

TEST_F(QuarantineTest, RemovedItemIsGoneForGood) {
    const QuarantineResult taken = take(bad());
    EXPECT_TRUE(quarantine_->remove(taken.id).done);
    EXPECT_FALSE(quarantine_->remove(taken.id).done);
    EXPECT_FALSE(quarantine_->restore("../../etc/passwd").done);
    EXPECT_EQ(filesInStore(), 0U);
}

TEST_F(QuarantineTest, TrustedContentIsKnownAgainAfterARestartUntilItIsDistrusted) {
    const QuarantineResult taken = take(bad());
    ASSERT_TRUE(quarantine_->trust(taken.id).done);
    ASSERT_TRUE(quarantine_->restore(taken.id).done);
    restart();
    EXPECT_TRUE(quarantine_->isTrusted(opened(dir_ / "share/virus").file.get()));
    ::writeFile(dir_ / "other", "other content");
    EXPECT_FALSE(quarantine_->isTrusted(opened(dir_ / "other").file.get()));
    ASSERT_EQ(quarantine_->trusted().size(), 1U);
    EXPECT_TRUE(quarantine_->distrust(quarantine_->trusted().begin()->first).done);
    EXPECT_FALSE(quarantine_->isTrusted(opened(dir_ / "share/virus").file.get()));
}

TEST_F(QuarantineTest, ListOfTrustedFilesOutlivesAStartThatCannotReadIt) {
    const std::string earlier = "{\"sha256\":\"" + std::string(64, 'a') + "\",\"path\":\"/earlier\"}\n";
    ::writeFile(dir_ / "aside", "of a later version\n" + earlier);
    fs::create_directory(dir_ / "trusted");
    restart();
    const QuarantineResult taken = take(bad());
    EXPECT_EQ(quarantine_->trust(taken.id).message, "The list of trusted files cannot be read: Invalid argument");
    EXPECT_EQ(quarantine_->distrust(std::string(64, 'a')).message,
              "The list of trusted files cannot be read: Invalid argument");
    fs::remove(dir_ / "trusted");
    fs::rename(dir_ / "aside", dir_ / "trusted");
    EXPECT_TRUE(quarantine_->trust(taken.id).done);
    EXPECT_EQ(quarantine_->trusted().size(), 2U);
    const std::string text = ::readFile(dir_ / "trusted");
    EXPECT_NE(text.find("of a later version\n"), std::string::npos);
    EXPECT_NE(text.find("/earlier"), std::string::npos);
}

TEST_F(QuarantineTest, BackupLeavesTheFileInPlace) {
    const QuarantineResult kept = quarantine_->backup(opened(bad()), {"Win.Virus.X", "Virus", "7_1"});
    ASSERT_TRUE(kept.done) << kept.message;
    expectRestored(dir_ / "share/virus");
    EXPECT_TRUE(quarantine_->find(kept.id)->backup);
    EXPECT_FALSE(quarantine_->restore(kept.id).done);
    fs::remove(dir_ / "share/virus");
    EXPECT_TRUE(quarantine_->restore(kept.id).done);
    expectRestored(dir_ / "share/virus");
}

TEST_F(QuarantineTest, NothingIsPutAwayOrCopiedOnADiskThatIsAlmostFull) {
    const ScannedFile file = opened(bad());
    QuarantineLimits limits;
    limits.keepFree = uint64_t{1} << 60U;
    quarantine_->setLimits(limits);
    for (const QuarantineResult& result : {quarantine_->backup(file, {}), quarantine_->take(file, {})}) {
        EXPECT_EQ(result.message, "the disk of the quarantine is almost full");
    }
    expectRestored(dir_ / "share/virus");
    EXPECT_EQ(filesInStore(), 0U);
}

TEST_F(QuarantineTest, WhoGoesOnWritingFillsNeitherTheDiskNorTheTimeOfAnybody) {
    const FileDescriptor writer(::open(bad().c_str(), O_RDWR | O_CLOEXEC));
    const std::string id = take(dir_ / "share/virus").id;
    const fs::path data = dir_ / ("store/" + id + ".data");
    ASSERT_EQ(::pwrite(writer.get(), "more", 4, 1 << 20), 4);
    quarantine_->tidy();
    EXPECT_GT(fs::file_size(data), 1U << 20U) << "there is room";
    EXPECT_FALSE(quarantine_->restore(id).done);
    QuarantineLimits limits;
    limits.keepFree = uint64_t{1} << 60U;
    quarantine_->setLimits(limits);
    quarantine_->tidy();
    EXPECT_EQ(fs::file_size(data), std::string_view(CONTENT).size());
    quarantine_->setLimits({});
    EXPECT_TRUE(quarantine_->restore(id).done);
    expectRestored(dir_ / "share/virus");
    // Made as long as can be when it is found: nobody reads that to its end.
    ASSERT_EQ(::ftruncate(writer.get(), off_t{1} << 42U), 0);
    ScannedFile grown = opened(dir_ / "share/virus");
    grown.status.st_size = 11;
    EXPECT_FALSE(quarantine_->take(grown, {}).done);
    const FileDescriptor to(::open((dir_ / "copy").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(copyContent(writer.get(), to.get(), 11), "");
    EXPECT_LE(fs::file_size(dir_ / "copy"), 11U);
}

TEST_F(QuarantineTest, CopyThatWouldTakeWhatIsToStayFreeIsNotMade) {
    constexpr uint64_t SIZE = uint64_t{1} << 30U;
    fs::resize_file(bad(), SIZE);
    QuarantineLimits limits;
    limits.keepFree = fs::space(dir_.path()).available - SIZE / 2;
    quarantine_->setLimits(limits);
    EXPECT_EQ(quarantine_->backup(opened(dir_ / "share/virus"), {}).message,
              "the disk of the quarantine is almost full");
    EXPECT_EQ(filesInStore(), 0U);
}

TEST_F(QuarantineTest, FileBelowAPathOfAnyLengthComesBack) {
    const std::string name(200, 'x');
    auto folder = std::make_shared<FileDescriptor>(::open(dir_.path().c_str(), O_PATH | O_DIRECTORY));
    std::string path = dir_.path().string();
    while (path.size() < 9000) {
        ASSERT_EQ(::mkdirat(folder->get(), name.c_str(), 0755), 0);
        folder = std::make_shared<FileDescriptor>(::openat(folder->get(), name.c_str(), O_PATH | O_DIRECTORY));
        path += "/" + name;
    }
    const FileDescriptor made(::openat(folder->get(), "virus", O_WRONLY | O_CREAT, 0640));
    ASSERT_EQ(::write(made.get(), "bad", 3), 3);
    const QuarantineResult taken = quarantine_->take(openInFolder(folder, "virus", path + "/virus").value(), {});
    ASSERT_TRUE(taken.done) << taken.message;
    EXPECT_NE(::faccessat(folder->get(), "virus", F_OK, 0), 0);
    const QuarantineResult restored = quarantine_->restore(taken.id);
    EXPECT_TRUE(restored.done) << restored.message;
    EXPECT_EQ(::faccessat(folder->get(), "virus", F_OK, 0), 0);
}

TEST_F(QuarantineTest, FileThatMustNotBeChangedIsToldAndStays) {
    bad();
    if (std::system(("chattr +i " + (dir_ / "share/virus").string()).c_str()) != 0) GTEST_SKIP() << "no such mark here";
    EXPECT_EQ(take(dir_ / "share/virus").message, "the file cannot be moved: the file is marked immutable");
    EXPECT_EQ(std::system(("chattr -i " + (dir_ / "share/virus").string()).c_str()), 0);
    EXPECT_EQ(filesInStore(), 0U);
}

class QuarantineLimitsTest : public QuarantineTest {
protected:
    QuarantineLimitsTest() {
        limits_.bytes = 100;
        limits_.age = 30 * DAY;
        limited_.setLimits(limits_);
        EXPECT_TRUE(limited_.open());
    }
    QuarantineResult takeSized(std::size_t size) {
        const fs::path path = dir_ / ("share/" + std::to_string(++number_));
        ::writeFile(path, std::string(size, 'x'));
        return limited_.take(opened(path), {});
    }
    /// Time goes by while the service runs.
    void pass(int64_t seconds) {
        for (int64_t i = 0; i < seconds; i += 3600) {
            clock_.pass(3600);
            limited_.tidy();
        }
    }

    static constexpr int64_t DAY = 86400;
    int number_ = 0;
    TestClock clock_;
    QuarantineLimits limits_;
    Quarantine limited_{(dir_ / "limited").string(), (dir_ / "trusted").string(), clock_};
};

TEST_F(QuarantineLimitsTest, FindWithoutRoomIsRefusedAndNothingElseGoesForIt) {
    const std::string kept = takeSized(60).id;
    EXPECT_TRUE(takeSized(101).full);
    const QuarantineResult refused = takeSized(60);
    EXPECT_TRUE(refused.full);
    EXPECT_EQ(refused.message, "the quarantine is full");
    EXPECT_TRUE(fs::exists(dir_ / "share/3"));
    EXPECT_TRUE(limited_.use().full);
    EXPECT_TRUE(limited_.remove(kept).done);
    EXPECT_FALSE(limited_.use().full);
    EXPECT_TRUE(takeSized(60).done) << "what was refused takes no room";
}

TEST_F(QuarantineLimitsTest, OldestGoOnlyAfterTheyWereAnnouncedForDays) {
    const std::string oldest = takeSized(50).id;
    clock_.pass(60);
    const std::string newest = takeSized(45).id;
    std::size_t announced = 0;
    std::vector<std::string> removed;
    limited_.onTidying({.announced = [&](std::size_t count, int64_t) { announced += count; },
                        .removed = [&](const auto& items) { removed.push_back(items.front().id); }});
    limited_.tidy();
    EXPECT_EQ(announced, 1U);
    const QuarantineUse use = limited_.use();
    EXPECT_EQ(std::tuple(use.announced, use.announcedBytes, use.nextRemoval, use.oldest),
              std::tuple(1U, 50U, limits_.announced, clock_.now() - 60));
    EXPECT_EQ(use.room(UINT64_MAX, UINT64_MAX), 5U);
    EXPECT_EQ(use.room(1003, 10000), 3U) << "a tenth of the disk stays free";
    EXPECT_EQ(use.room(900, 10000), 0U);
    pass(limits_.announced - 3600);
    EXPECT_TRUE(limited_.find(oldest));
    EXPECT_TRUE(removed.empty());
    pass(int64_t{2} * 3600);
    EXPECT_FALSE(limited_.find(oldest));
    EXPECT_EQ(removed, std::vector<std::string>{oldest}) << "never silently";
    EXPECT_TRUE(limited_.find(newest));
    EXPECT_EQ(limited_.use().announced, 0U);
}

TEST_F(QuarantineLimitsTest, WrongClockRemovesNothingAndAnnouncesNothingForLong) {
    ASSERT_TRUE(takeSized(10).done);
    clock_.seconds -= 400 * DAY;
    ASSERT_TRUE(takeSized(10).done);
    clock_.seconds += 400 * DAY;
    pass(3600);
    EXPECT_EQ(limited_.use().announced, 0U) << "what came while it was behind is not old";
    clock_.seconds += 400 * DAY;
    pass(3600);
    EXPECT_EQ(limited_.use().announced, 2U);
    clock_.seconds -= 400 * DAY;
    pass(3600);
    EXPECT_EQ(limited_.use().announced, 0U);
    pass(29 * DAY);
    EXPECT_EQ(limited_.use().announced, 0U);
    pass(2 * DAY);
    EXPECT_EQ(limited_.use().announced, 2U);
    EXPECT_EQ(limited_.size(), 2U);
    pass(8 * DAY);
    EXPECT_EQ(limited_.size(), 0U);
}

TEST_F(QuarantineTest, DamagedRecordDoesNotHideTheOthers) {
    ASSERT_TRUE(take(bad()).done);
    ::writeFile(dir_ / "store/garbage.json", "{\"id\":");
    ::writeFile(dir_ / ("store/" + std::string(32, 'a') + ".json"), R"({"id":"../../x","phase":"kept"})");
    restart();
    EXPECT_EQ(quarantine_->list().size(), 1U);
    EXPECT_TRUE(fs::exists(dir_ / "store/garbage.json"));
}

/// What a start makes of an interrupted operation when it may not read what was stored.
class UnreadableTest : public QuarantineTest {
protected:
    /// A start by somebody who may delete everything in the store but not read the content.
    void startUnableToRead() {
        constexpr uid_t NOBODY = 65534;
        ::chmod(dir_.path().c_str(), 0755);
        for (const fs::path& path : {dir_ / "store", dir_ / ("store/" + id_ + ".json")}) {
            ASSERT_EQ(::geteuid() == 0 ? ::chown(path.c_str(), NOBODY, NOBODY) : 0, 0);
        }
        ASSERT_EQ(::chmod((dir_ / ("store/" + id_ + ".data")).c_str(), 0), 0);
        withoutPrivilege([this] { restart(); });
        EXPECT_EQ(quarantine_->list().size(), 1U);
        ::chmod((dir_ / ("store/" + id_ + ".data")).c_str(), 0600);
    }
};

TEST_F(UnreadableTest, TheOnlyCopyOfAFileIsNotErased) {
    for (const char* const phase : {"copying", "backing up"}) {
        id_ = take(bad()).id;
        const fs::path record = dir_ / ("store/" + id_ + ".json");
        std::string text = ::readFile(record);
        const std::string kept = "\"phase\":\"kept\"";
        text.replace(text.find(kept), kept.size(), std::string("\"phase\":\"") + phase + '"');
        ::writeFile(record, text);
        startUnableToRead();
        restart();
        ASSERT_TRUE(quarantine_->restore(id_).done);
        expectRestored(dir_ / "share/virus");
    }
}

}  // namespace
}  // namespace keldra
