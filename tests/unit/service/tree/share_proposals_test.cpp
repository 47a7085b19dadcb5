#include "service/tree/share_proposals.h"

#include "tests/harness/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace keldra;
namespace fs = std::filesystem;

TEST(ShareProposals, NameWhatIsSharedAndMountedOnceAndNothingThatIsNotThere) {
    const TempDir dir;
    for (const char* folder : {"docs", "homes/anna", "with blank", "disk"}) fs::create_directories(dir / folder);
    const std::string at = dir.path().string();
    writeFile(dir / "smb.conf", "[global]\n path = " + at + "/disk\n[Docs]\n  Path = " + at +
                                    "/docs/\n; path = /x\n[people]\npath=" + at + "/homes/%U\n[print$]\npath=" + at +
                                    "/disk\n[gone]\npath=" + at + "/gone\n");
    writeFile(dir / "exports", "# all\n\"" + at + "/with blank\" *(ro)\n" + at + "/docs host(rw)\n");
    writeFile(dir / "mounts", "/dev/sda1 / ext4 rw 0 0\nproc " + at + "/disk proc rw 0 0\n/dev/sdb1 " + at +
                                  "/with\\040blank xfs rw 0 0\n/dev/sdc1 /boot ext4 rw 0 0\n");
    std::vector<std::string> found;
    for (const ShareProposal& share : proposeShares({dir / "smb.conf", dir / "exports", dir / "mounts"}))
        found.push_back(share.origin + " " + share.name + " " + fs::path(share.path).filename().string());
    EXPECT_THAT(found, testing::ElementsAre("smb Docs docs", "smb people homes", "nfs *(ro) with blank"));
}
