#include "service/engine/clean_files.h"

#include "norv/file_descriptor.h"
#include "tests/harness/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

namespace keldra {
namespace {

TEST(CleanFiles, AllFilesOfATreeAreRememberedAcrossARestart) {
    const TempDir folder;
    const std::string identity(64, 'a');
    struct stat status {};
    ASSERT_EQ(::stat(folder.path().c_str(), &status), 0);
    const int64_t later = status.st_ctim.tv_sec + 60;
    const FileDescriptor place(::open(folder.path().c_str(), O_RDONLY | O_CLOEXEC));
    const auto keyOf = [&](const CleanFiles& files, int number) {
        status.st_ino = static_cast<ino_t>(number);
        return files.keyOf(place.get(), status, true, later);
    };
    constexpr int FILES = 200'000;
    {
        CleanFiles files(folder / "clean");
        files.useSignatures(identity);
        if (!keyOf(files, 0)) GTEST_SKIP() << "temporary files lie on a file system whose times are not trusted";
        for (int number = 0; number < FILES; ++number) files.add(*keyOf(files, number), identity);
        files.save();
    }
    CleanFiles files(folder / "clean");
    files.useSignatures(identity);
    int forgotten = 0;
    for (int number = 0; number < FILES; ++number) forgotten += files.knows(*keyOf(files, number)) ? 0 : 1;
    EXPECT_LT(forgotten, FILES / 1000);
    EXPECT_FALSE(files.knows(*keyOf(files, FILES)));
    files.useSignatures(std::string(64, 'b'));
    EXPECT_FALSE(files.knows(*keyOf(files, 0))) << "clean under other signatures";
}

TEST(CleanFiles, AContentIsKnownWhereverItLiesButOnlyAsItWasScanned) {
    CleanFiles files;
    files.useSignatures(std::string(64, 'a'));
    files.add(files.keyOfContent("digest", false), std::string(64, 'a'));
    EXPECT_TRUE(files.knows(files.keyOfContent("digest", false)));
    EXPECT_FALSE(files.knows(files.keyOfContent("digest", true))) << "its archives were not looked into";
    EXPECT_FALSE(files.knows(files.keyOfContent("digesu", false)));
}

}  // namespace
}  // namespace keldra
