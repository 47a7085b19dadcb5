#include "service/tree/share_roots.h"

#include "tests/harness/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace keldra;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

class ShareRoots : public testing::Test {
protected:
    ShareRoots() {
        for (const char* folder : {"share/docs/letters", "share2", "private"}) fs::create_directories(dir_ / folder);
        fs::create_directory_symlink(dir_ / "private", dir_ / "share/out");
        fs::create_directory_symlink(dir_ / "share/docs", dir_ / "share/in");
        fs::create_directory_symlink(dir_ / "share", dir_ / "alias");
        config_.setValue("Configuration", "ShareRoots", path("share"));
    }
    std::string path(const char* name) const { return (dir_ / name).string(); }
    std::string faultOf(const std::string& folder) const {
        const SharedFolder found = openSharedFolder(shareRoots(config_), folder);
        EXPECT_EQ(found.fault.empty(), static_cast<bool>(found.folder));
        return found.fault;
    }

    TempDir dir_;
    NORVConfig config_;
};

}  // namespace

TEST_F(ShareRoots, ARootAndWhatLiesBelowItCanBeOpened) {
    for (const char* name : {"share", "share/docs", "share/docs/letters", "share/docs/../docs", "share//docs/./"})
        EXPECT_EQ(faultOf(path(name)), "") << name;
}

TEST_F(ShareRoots, NothingLeadsOutOfARoot) {
    const char* const outside = "none of those";
    for (const std::string& folder : std::vector<std::string>{
             path("private"), path("share2"), path("share/.."), path("share/../private"),
             path("share/docs/../../private"), "/", "/etc", "", "share", "../share", path("alias/docs")})
        EXPECT_THAT(faultOf(folder), HasSubstr(outside)) << folder;
    for (const char* name : {"share/out", "share/out/x", "share/in", "share/in/letters"})
        EXPECT_THAT(faultOf(path(name)), HasSubstr("symbolic link")) << name;
    EXPECT_THAT(faultOf(path("share/missing")), HasSubstr("no such folder"));
}

TEST_F(ShareRoots, ARootThatIsReachedOverALinkItselfIsTheAdministratorsChoice) {
    config_.setValue("Configuration", "ShareRoots", path("alias"));
    EXPECT_EQ(faultOf(path("alias/docs")), "");
    EXPECT_THAT(faultOf(path("alias/out")), HasSubstr("symbolic link"));
}

TEST_F(ShareRoots, WithoutNamedRootsTheScansFoldersAreTheRoots) {
    config_.setValue("Configuration", "ShareRoots", "");
    config_.setValue("ManualScan", "scanPaths", path("share2") + "/;relative");
    config_.setValue("ScheduledScan", "scanPaths", path("private") + ";" + path("share2"));
    EXPECT_THAT(shareRoots(config_), ElementsAre(path("private"), path("share2")));
}

TEST_F(ShareRoots, SettingsNameNoNewFolderOutsideAndKeepWhatTheyHad) {
    const std::string old = path("private") + ";/gone";
    EXPECT_EQ(checkNewFolders(config_, old, old), "") << "what is set stays valid when the roots change";
    EXPECT_EQ(checkNewFolders(config_, old, old + ";" + path("share/docs")), "");
    EXPECT_THAT(checkNewFolders(config_, old, old + ";/etc"), HasSubstr("none of those"));
    EXPECT_THAT(checkNewFolders(config_, "", path("private")), HasSubstr(path("private")));
    EXPECT_THAT(checkNewFolders(config_, "", path("share/out")), HasSubstr("symbolic link"));
}
