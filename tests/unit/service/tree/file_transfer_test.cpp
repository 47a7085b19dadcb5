#include "service/tree/file_transfer.h"

#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {
bool flagIsKnown = true;
}

/// Takes the place of the C library's: not every file system knows a rename that replaces nothing.
extern "C" int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) noexcept {
    if (flags == 0 || flagIsKnown)
        return static_cast<int>(::syscall(SYS_renameat2, fromFolder, from, toFolder, to, flags));
    errno = EINVAL;
    return -1;
}

namespace keldra {
namespace {

TEST(FileTransferTest, ARenameReplacesNothingOnAnyFileSystem) {
    for (const bool known : {true, false}) {
        flagIsKnown = known;
        const TempDir dir;
        const FileDescriptor folder(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ::writeFile(dir / "a", "moved");
        ::writeFile(dir / "taken", "stays");
        EXPECT_FALSE(renameNoReplace(folder.get(), "a", folder.get(), "taken")) << known;
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(::readFile(dir / "taken"), "stays");
        EXPECT_TRUE(renameNoReplace(folder.get(), "a", folder.get(), "b")) << known;
        EXPECT_EQ(::readFile(dir / "b"), "moved");
        EXPECT_FALSE(std::filesystem::exists(dir / "a"));
    }
    flagIsKnown = true;
}

}  // namespace
}  // namespace keldra
