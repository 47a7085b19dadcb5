#include "service/tree/file_walk.h"

#include "tests/unit/service/scan_fixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <set>

namespace keldra {
namespace {

namespace fs = std::filesystem;

class FileWalkTest : public testing::Test {
protected:
    void SetUp() override {
        fs::permissions(dir_.path(), fs::perms::all);
        plan_.roots = {dir_.path().string()};
    }

    /// Visits everything and notes what came, relative to the folder.
    void walk() {
        walk([this](const ScannedFile& file) { visited_.insert(relative(file.path)); });
    }
    void walk(const std::function<void(const ScannedFile&)>& visit, const std::stop_token& stop = {}) {
        FileWalk walk(plan_, [this](const std::string& path, const auto&) { skipped_.insert(relative(path)); });
        while (const auto file = walk.nextOpened(stop)) visit(*file);
    }
    std::size_t count() const {
        std::size_t found = 0;
        countFiles(plan_, [&found](const FoundFile*) { ++found; }, {});
        return found;
    }

    std::string relative(const std::string& path) const { return fs::path(path).lexically_relative(dir_.path()); }

    using Names = std::set<std::string>;
    TempDir dir_;
    WalkPlan plan_;
    Names visited_;
    Names skipped_;
};

TEST_F(FileWalkTest, LinksAreNotFollowedOutOfTheTreeNorInCircles) {
    const TempDir elsewhere;
    writeFile(elsewhere / "secret", "x");
    writeFile(dir_ / "a/file", "x");
    fs::create_directory_symlink("..", dir_ / "a/up");
    fs::create_directory_symlink(elsewhere.path(), dir_ / "out");
    fs::create_symlink(elsewhere / "secret", dir_ / "link");
    walk();
    EXPECT_EQ(visited_, Names({"a/file"}));
    EXPECT_EQ(count(), 1U);
}

TEST_F(FileWalkTest, RootThatIsALinkIsRefusedAndSaid) {
    const TempDir elsewhere;
    writeFile(elsewhere / "secret", "x");
    fs::create_directory_symlink(elsewhere.path(), dir_ / "root");
    plan_.roots = {dir_ / "root"};
    walk();
    EXPECT_EQ(visited_, Names());
    EXPECT_EQ(skipped_, Names({"root"}));
}

TEST_F(FileWalkTest, PipesAndSocketsDoNotHoldAScanUp) {
    ASSERT_EQ(::mkfifo((dir_ / "pipe").c_str(), 0600), 0);
    writeFile(dir_ / "file", "x");
    walk();
    EXPECT_EQ(visited_, Names({"file"}));
    plan_.roots = {dir_ / "pipe"};
    walk();
    EXPECT_EQ(skipped_, Names({"pipe"}));
}

TEST_F(FileWalkTest, ExcludedFoldersAndNamesAreLeftOutWholly) {
    for (const char* name : {"a/keep.txt", "a/drop.tmp", "a/x.tmp.txt", "b/file", "b/c/file", "bb/file"}) {
        writeFile(dir_ / name, "x");
    }
    fs::create_directory_symlink("b", dir_ / "alias");
    writeFile(dir_ / "d/file", "x");
    plan_.excludeFolders = {(dir_ / "d").string() + "/"};
    plan_.ownFolders = {dir_ / "alias"};
    plan_.excludePatterns = {"*.tmp"};
    walk();
    EXPECT_EQ(visited_, Names({"a/keep.txt", "a/x.tmp.txt", "bb/file"}));
    EXPECT_EQ(count(), 3U) << "the total would never be reached";
}

TEST_F(FileWalkTest, ALinkOnTheWayToAChosenFolderLeadsNowhere) {
    const TempDir elsewhere;
    writeFile(elsewhere / "chosen/secret", "x");
    fs::create_directory(dir_ / "share");
    fs::create_directory_symlink(elsewhere.path(), dir_ / "share/user");
    plan_.roots = {dir_ / "share/user/chosen"};
    plan_.shareRoots = {dir_ / "share"};
    walk();
    EXPECT_EQ(visited_, Names({}));
    EXPECT_EQ(skipped_.size(), 1U);
}

TEST_F(FileWalkTest, ALinkInPlaceOfAnExcludedFolderLeavesNothingOut) {
    writeFile(dir_ / "share/virus", "x");
    fs::create_directory_symlink(".", dir_ / "share/excluded");
    plan_.roots = {dir_ / "share"};
    plan_.excludeFolders = {dir_ / "share/excluded"};
    walk();
    EXPECT_EQ(visited_, Names({"share/virus"}));
}

TEST_F(FileWalkTest, UnreadableAndVanishedFilesAreToldAndTheRestIsVisited) {
    writeFile(dir_ / "a/closed", "x");
    writeFile(dir_ / "a/open", "x");
    writeFile(dir_ / "locked/file", "x");
    fs::permissions(dir_ / "a/closed", fs::perms::none);
    fs::permissions(dir_ / "locked", fs::perms::none);
    withoutPrivilege([this] { walk(); });
    EXPECT_EQ(visited_, Names({"a/open"}));
    EXPECT_EQ(skipped_, Names({"a/closed", "locked"}));
    plan_.roots = {dir_ / "gone"};
    walk();
    EXPECT_EQ(skipped_.count("gone"), 1U);
    fs::permissions(dir_ / "locked", fs::perms::owner_all);
}

TEST_F(FileWalkTest, FolderThatTurnsIntoALinkDuringTheWalkIsNotEntered) {
    const TempDir elsewhere;
    writeFile(elsewhere / "secret", "x");
    writeFile(dir_ / "first", "x");
    fs::create_directory(dir_ / "folder");
    walk([&](const ScannedFile& file) {
        visited_.insert(file.name);
        fs::remove(dir_ / "folder");
        fs::create_directory_symlink(elsewhere.path(), dir_ / "folder");
    });
    EXPECT_EQ(visited_, Names({"first"}));
    EXPECT_EQ(skipped_, Names({"folder"}));
}

TEST_F(FileWalkTest, NestedRootsAreVisitedOnce) {
    writeFile(dir_ / "a/file", "x");
    plan_.roots = {dir_ / "a/file", dir_.path().string() + "/", dir_ / "a/../a"};
    EXPECT_EQ(count(), 1U);
    walk();
    EXPECT_EQ(visited_, Names({"a/file"}));
}

TEST_F(FileWalkTest, EndlesslyNestedFoldersEndTheWalkWithALineInsteadOfACrash) {
    std::string name = "d";
    fs::path path = dir_.path();
    for (int i = 0; i < 300; ++i) path /= name;
    fs::create_directories(path);
    walk();
    EXPECT_EQ(skipped_.size(), 1U);
}

TEST_F(FileWalkTest, WalkEndsSoonAfterAStop) {
    for (int i = 0; i < 100; ++i) writeFile(dir_ / ("f" + std::to_string(i)), "x");
    std::stop_source stop;
    int visits = 0;
    const auto visit = [&](const ScannedFile&) {
        ++visits;
        stop.request_stop();
    };
    walk(visit, stop.get_token());
    EXPECT_EQ(visits, 1);
}

TEST_F(FileWalkTest, FileOfAnAccessEventIsTracedToItsFolder) {
    writeFile(dir_ / "a/file", "x");
    const ScannedFile file = opened(dir_ / "a/file");
    const std::optional<ScannedFile> traced = scannedFileAt(file.file.get(), file.path);
    ASSERT_TRUE(traced);
    EXPECT_TRUE(traced->stillThere());
    writeFile(dir_ / "a/other", "x");
    EXPECT_FALSE(scannedFileAt(file.file.get(), dir_ / "a/other")) << "another file is not dealt with";
    fs::remove(dir_ / "a/file");
    EXPECT_FALSE(scannedFileAt(file.file.get(), file.path)) << "a deleted file has no place any more";
}

}  // namespace
}  // namespace keldra
