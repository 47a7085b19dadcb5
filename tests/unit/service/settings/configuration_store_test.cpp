#include "service/settings/configuration_store.h"

#include "tests/harness/temp_dir.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <thread>

namespace keldra {
namespace {

namespace fs = std::filesystem;

constexpr const char* DOCUMENT = "<Document><Group Type=\"A\"><P Name=\"x\" Value=\"1\"/></Group></Document>\n";

class ConfigurationStoreTest : public testing::Test {
protected:
    ConfigurationStoreTest() { ::writeFile(file_, DOCUMENT); }

    SaveOutcome set(const std::string& value) {
        const auto change = [&value](NORVConfig& config) {
            config.setValue("A", "x", value);
            return true;
        };
        const SaveResult result = store_.update(change);
        EXPECT_EQ(result.reason.empty(), saved(result.outcome));
        return result.outcome;
    }
    std::string get() const { return configValueOr(*store_.snapshot(), "A", "x", std::string("none")); }
    time_t modified() const {
        struct stat status {};
        return ::stat(file_.c_str(), &status) == 0 ? status.st_mtim.tv_sec : 0;
    }

    TempDir dir_;
    const fs::path file_ = dir_ / "config.xml";
    TestClock clock_;
    ConfigurationStore store_{file_, clock_};
};

TEST_F(ConfigurationStoreTest, ASaveIsThereAfterARestartWithItsStamp) {
    ASSERT_TRUE(store_.refresh());
    clock_.seconds = modified() + 100;
    EXPECT_EQ(set("2"), SaveOutcome::SAVED);
    ConfigurationStore again(file_, clock_);
    ASSERT_TRUE(again.refresh());
    EXPECT_EQ(configValueOr(*again.snapshot(), "A", "x", std::string()), "2");
    EXPECT_EQ(again.snapshot()->lastModified(), clock_.seconds);
}

TEST_F(ConfigurationStoreTest, TwoSavesInOneSecondHaveDifferentStamps) {
    ASSERT_TRUE(store_.refresh());
    const long before = store_.snapshot()->lastModified();
    clock_.seconds = before - 1000;  // the clock was set back, too
    set("2");
    EXPECT_EQ(store_.snapshot()->lastModified(), before + 1);
    set("3");
    EXPECT_EQ(store_.snapshot()->lastModified(), before + 2);
    EXPECT_EQ(modified(), before + 2);
}

TEST_F(ConfigurationStoreTest, ABrokenFileIsNeverOverwritten) {
    ASSERT_TRUE(store_.refresh());
    store_.backUp();
    for (const std::string broken : {"<Document><Group", "", "<Other/>", "not XML at all"}) {
        ::writeFile(file_, broken);
        fs::last_write_time(file_, fs::last_write_time(file_) + std::chrono::seconds(5));
        EXPECT_FALSE(store_.refresh()) << broken;
        EXPECT_EQ(set("2"), SaveOutcome::FAILED) << broken;
        EXPECT_FALSE(store_.error().empty());
        EXPECT_EQ(::readFile(file_), broken);
        EXPECT_EQ(get(), "1") << "the last good settings are still known";
        EXPECT_EQ(::readFile(file_.string() + ".bak"), DOCUMENT);
    }
}

TEST_F(ConfigurationStoreTest, AChangeMadeByHandIsNotLostToASave) {
    ASSERT_TRUE(store_.refresh());
    ::writeFile(file_, "<Document><Group Type=\"A\"><P Name=\"y\" Value=\"hand\"/></Group></Document>");
    ASSERT_EQ(set("2"), SaveOutcome::SAVED);
    EXPECT_EQ(configValueOr(*store_.snapshot(), "A", "y", std::string()), "hand");
    EXPECT_EQ(get(), "2");
}

TEST_F(ConfigurationStoreTest, ASaveStandsWhenItsBackupCannotBeWritten) {
    fs::create_directories(fs::path(file_.string() + ".bak") / "in the way");
    ASSERT_TRUE(store_.refresh());
    EXPECT_EQ(set("2"), SaveOutcome::SAVED_WITHOUT_BACKUP);
    ConfigurationStore again(file_, clock_);
    again.refresh();
    EXPECT_EQ(configValueOr(*again.snapshot(), "A", "x", std::string()), "2");
}

TEST_F(ConfigurationStoreTest, AFullDiskLeavesTheOldDocumentAndNoLitter) {
    ASSERT_TRUE(store_.refresh());
    store_.backUp();
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit tiny{16, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &tiny);
    const SaveOutcome outcome = set("2");
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(outcome, SaveOutcome::FAILED);
    EXPECT_EQ(::readFile(file_), DOCUMENT);
    EXPECT_EQ(get(), "1");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), fs::directory_iterator()), 2);
}

TEST_F(ConfigurationStoreTest, SavesAtTheSameTimeLoseNothing) {
    ASSERT_TRUE(store_.refresh());
    const auto count = [this](const std::string& name) {
        for (int i = 0; i < 25; ++i)
            store_.update([&name](NORVConfig& config) {
                config.setValue("A", name, std::to_string(configValueOr(config, "A", name, 0) + 1));
                return true;
            });
    };
    std::thread one(count, "one");
    std::thread two(count, "two");
    one.join();
    two.join();
    EXPECT_EQ(configValueOr(*store_.snapshot(), "A", "one", 0), 25);
    EXPECT_EQ(configValueOr(*store_.snapshot(), "A", "two", 0), 25);
}

TEST_F(ConfigurationStoreTest, WhoListensHearsOfSavesAndOfChangesByHand) {
    int heard = 0;
    store_.onChange([&heard](const ConfigurationChange&) { ++heard; });
    store_.refresh();
    set("2");
    store_.refresh();
    store_.update([](NORVConfig&) { return false; });
    EXPECT_EQ(heard, 2);
    ::writeFile(file_, DOCUMENT);
    store_.refresh();
    EXPECT_EQ(heard, 3);
}

}  // namespace
}  // namespace keldra
