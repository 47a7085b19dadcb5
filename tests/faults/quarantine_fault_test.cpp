#include "service/quarantine/quarantine.h"
#include "service/tree/file_transfer.h"
#include "tests/faults/fault_control.h"
#include "tests/harness/temp_dir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <set>
#include <thread>
#include <vector>

// What is left of a file when the power goes, or a call of the system fails, anywhere while it is put away, put back,
// copied or deleted.

namespace faults {

Control& control() {
    static Control own;
    return own;
}

}  // namespace faults

namespace keldra {
namespace {

namespace fs = std::filesystem;
using faults::control;
using faults::Renames;

constexpr const char* CONTENT = "bad content";
constexpr mode_t MODE = 0640;

struct Disk {
    const char* name;
    Renames renames;
    bool manyNames;  ///< the file has another name, so that it is copied
};

void PrintTo(const Disk& disk, std::ostream* out) { *out << disk.name; }

class QuarantineFaults : public testing::TestWithParam<Disk> {
protected:
    QuarantineFaults() {
        faults::renames = GetParam().renames;
        fs::create_directories(dir_ / "share");
        restart();
    }
    ~QuarantineFaults() override {
        control().disarm();
        faults::observer = {};
        faults::renames = Renames::PLAIN;
    }

    void restart() {
        quarantine_ = std::make_unique<Quarantine>((dir_ / "store").string(), (dir_ / "trusted").string());
        ASSERT_TRUE(quarantine_->open());
    }
    void makeBad() {
        ::writeFile(path_, CONTENT);
        ::chmod(path_.c_str(), MODE);
        noted_ = ::setxattr(path_.c_str(), "user.note", "kept", 4, 0) == 0;
        if (GetParam().manyNames) fs::create_hard_link(path_, dir_ / ("elsewhere" + std::to_string(++names_)));
    }
    ScannedFile openBad() const {
        auto folder = std::make_shared<FileDescriptor>(::open((dir_ / "share").c_str(), O_PATH | O_DIRECTORY));
        return openInFolder(folder, "virus", path_.string()).value();
    }
    QuarantineResult take() { return quarantine_->take(openBad(), {"Win.Virus.X", "Virus", "7_1"}); }
    QuarantineResult destroy() { return quarantine_->destroy(openBad(), {}); }
    QuarantineResult backup() { return quarantine_->backup(openBad(), {}); }
    QuarantineResult restore() { return quarantine_->restore(quarantine_->list().front().id); }

    static std::size_t filesIn(const fs::path& folder) {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), {}));
    }
    /// Under its name as it was, or in quarantine, and nothing else lies about.
    void expectInOnePlace() const {
        const bool inPlace = fs::exists(path_);
        EXPECT_EQ(quarantine_->size(), inPlace ? 0U : 1U);
        EXPECT_EQ(filesIn(dir_ / "store"), inPlace ? 0U : 2U);
        EXPECT_EQ(filesIn(dir_ / "share"), inPlace ? 1U : 0U);
        if (inPlace) expectAsItWas();
    }
    void expectAsItWas() const {
        EXPECT_EQ(::readFile(path_), CONTENT);
        struct stat status {};
        ASSERT_EQ(::stat(path_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, MODE);
        std::array<char, 8> value{};
        EXPECT_EQ(::getxattr(path_.c_str(), "user.note", value.data(), value.size()) == 4, noted_);
    }
    /// Does something in a process of its own that ends at its n-th call. False when it came to its end.
    template <typename Operation>
    bool cut(int at, const Operation& operation) {
        const pid_t child = ::fork();
        if (child == 0) {
            control().arm(faults::FILES, at, faults::DIE);
            operation();
            ::_exit(0);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        restart();
        return WIFSIGNALED(status);
    }
    template <typename Operation>
    bool failAt(int at, int error, const Operation& operation) {
        control().arm(faults::FILES, at, error);
        operation();
        return control().disarm();
    }

    static std::vector<int> errorsToTry() {
        return std::getenv("KELDRA_LONG_FAULTS") ? std::vector{EIO, ENOSPC, EMFILE} : std::vector{EIO};
    }
    /// Where syncing takes no time.
    static bool onMemory() { return ::access("/dev/shm", W_OK) != 0 || ::setenv("TMPDIR", "/dev/shm", 1) == 0; }

    const bool onMemory_ = onMemory();
    TempDir dir_;
    fs::path path_ = dir_ / "share/virus";
    int names_ = 0;
    bool noted_ = false;
    std::unique_ptr<Quarantine> quarantine_;
};

TEST_P(QuarantineFaults, PowerCutAtAnyCallLosesAndDoublesNothing) {
    int at = 1;
    for (bool dead = true; dead; ++at) {
        SCOPED_TRACE("taking, call " + std::to_string(at));
        makeBad();
        dead = cut(at, [this] { take(); });
        expectInOnePlace();
        if (quarantine_->size() == 1) {
            EXPECT_TRUE(restore().done);
        }
        expectAsItWas();
        fs::remove(path_);
    }
    EXPECT_GT(at, 10);
    makeBad();
    ASSERT_TRUE(take().done);
    at = 1;
    for (bool dead = true; dead; ++at) {
        SCOPED_TRACE("restoring, call " + std::to_string(at));
        dead = cut(at, [this] { restore(); });
        expectInOnePlace();
        if (quarantine_->size() == 1) continue;
        fs::remove(path_);
        makeBad();
        ASSERT_TRUE(take().done);
    }
    EXPECT_GT(at, 10);
}

TEST_P(QuarantineFaults, PowerCutWhileAFileIsDeletedOrCopiedLeavesNothingUnrecorded) {
    int at = 1;
    for (bool dead = true; dead; ++at) {
        SCOPED_TRACE("deleting, call " + std::to_string(at));
        makeBad();
        dead = cut(at, [this] { destroy(); });
        EXPECT_EQ(filesIn(dir_ / "share"), fs::exists(path_) ? 1U : 0U) << "set aside and forgotten";
        EXPECT_EQ(filesIn(dir_ / "store"), 0U);
    }
    EXPECT_FALSE(fs::exists(path_));
    makeBad();
    at = 1;
    for (bool dead = true; dead; ++at) {
        dead = cut(at, [this] { backup(); });
        expectAsItWas();
        EXPECT_EQ(filesIn(dir_ / "store"), 2 * quarantine_->size());
        for (const QuarantineItem& item : quarantine_->list()) quarantine_->remove(item.id);
    }
}

TEST_P(QuarantineFaults, WhateverCallFailsTheFileIsInOnePlaceAndItCanBeDoneAgain) {
    for (const int error : errorsToTry()) {
        bool fired = true;
        for (int at = 1; fired; ++at) {
            SCOPED_TRACE("taking, call " + std::to_string(at) + ", error " + std::to_string(error));
            makeBad();
            const ScannedFile file = openBad();
            fired = failAt(at, error, [&] { quarantine_->take(file, {}); });
            if (fs::exists(path_)) {
                EXPECT_EQ(quarantine_->size(), 0U);
                const QuarantineResult again = take();
                EXPECT_TRUE(again.done) << again.message;
            }
            ASSERT_EQ(quarantine_->size(), 1U);
            EXPECT_EQ(filesIn(dir_ / "share"), 0U);
            const QuarantineResult back = restore();
            ASSERT_TRUE(back.done) << back.message;
            expectAsItWas();
            fs::remove(path_);
        }
        fired = true;
        for (int at = 1; fired; ++at) {
            SCOPED_TRACE("restoring, call " + std::to_string(at) + ", error " + std::to_string(error));
            makeBad();
            ASSERT_TRUE(take().done);
            QuarantineResult result;
            fired = failAt(at, error, [&] { result = restore(); });
            EXPECT_EQ(fs::exists(path_), result.done) << result.message;
            EXPECT_EQ(filesIn(dir_ / "share"), result.done ? 1U : 0U) << "a half copy is left";
            if (!result.done) {
                EXPECT_NE(result.message, "");
                result = restore();
            }
            ASSERT_TRUE(result.done) << result.message;
            expectAsItWas();
            restart();
            EXPECT_EQ(quarantine_->size(), 0U);
            fs::remove(path_);
        }
    }
    restart();
    EXPECT_EQ(filesIn(dir_ / "store"), 0U) << "a start leaves nothing of what failed";
}

TEST_P(QuarantineFaults, WhatTheDiskHasNotTakenYetIsTold) {
    int told = 0;
    bool fired = true;
    for (int at = 1; fired; ++at) {
        makeBad();
        ASSERT_TRUE(take().done);
        QuarantineResult result;
        control().arm(faults::bit(faults::Call::FSYNC), at, EIO);
        result = restore();
        fired = control().disarm();
        if (result.done && result.message.find("power cut") != std::string::npos) ++told;
        EXPECT_TRUE(result.done || restore().done);
        fs::remove(path_);
    }
    EXPECT_EQ(told, GetParam().renames == faults::Renames::NOT_BETWEEN_FOLDERS ? 0 : 1) << "or it is not done then";
    makeBad();
    ASSERT_TRUE(take().done);
    control().arm(faults::bit(faults::Call::FSYNC), 1, EIO);
    const QuarantineResult deleted = quarantine_->remove(quarantine_->list().front().id);
    EXPECT_TRUE(control().disarm());
    EXPECT_TRUE(deleted.done);
    EXPECT_NE(deleted.message.find("power cut"), std::string::npos) << deleted.message;
}

/// Notes what was changed and is not on disk yet.
class Unsynced {
public:
    void note(faults::Call call, int folder, const char* name) {
        if (call == faults::Call::FSYNC) {
            dirty_.erase(inodeOf(folder, nullptr));
            return;
        }
        const ino_t changed = inodeOf(folder, name);
        if (call == faults::Call::UNLINK) {
            for (const ino_t other : dirty_) {
                EXPECT_EQ(other, changed) << (name ? name : "a file") << " is removed before something else is on disk";
            }
        }
        dirty_.insert(changed);
    }
    bool empty() const { return dirty_.empty(); }

private:
    /// Of a folder that a name is in, or of an open file.
    static ino_t inodeOf(int folder, const char* name) {
        struct stat status {};
        if (folder == AT_FDCWD && name != nullptr) {
            ::stat(fs::path(name).parent_path().c_str(), &status);
        } else {
            ::fstat(folder, &status);
        }
        return status.st_ino;
    }
    std::set<ino_t> dirty_;
};

TEST_P(QuarantineFaults, NothingIsRemovedOrToldBeforeAllElseIsOnDisk) {
    Unsynced unsynced;
    faults::observer = [&](faults::Call call, int folder, const char* name) { unsynced.note(call, folder, name); };
    makeBad();
    using Operation = std::function<QuarantineResult()>;
    for (const Operation& operation :
         {Operation([this] { return take(); }), Operation([this] { return restore(); }),
          Operation([this] { return backup(); }), Operation([this] { return destroy(); })}) {
        unsynced = {};
        EXPECT_TRUE(operation().done);
        EXPECT_TRUE(unsynced.empty());
    }
    unsynced = {};
    EXPECT_TRUE(quarantine_->trust(quarantine_->list().front().id).done);
    EXPECT_TRUE(quarantine_->remove(quarantine_->list().front().id).done);
    EXPECT_TRUE(unsynced.empty());
}

/// An access list in the kernel's form: for the owner rwx bits, a user 1234, the group, the mask and others.
std::string accessList(uint16_t user, uint16_t group, uint16_t mask, uint16_t other) {
    std::string list("\2\0\0\0", 4);
    const auto add = [&](uint16_t tag, uint16_t bits, uint32_t id) {
        list.append(reinterpret_cast<const char*>(&tag), 2).append(reinterpret_cast<const char*>(&bits), 2);
        list.append(reinterpret_cast<const char*>(&id), 4);
    };
    add(0x01, 6, ~0U);
    add(0x02, user, 1234);
    add(0x04, group, ~0U);
    add(0x10, mask, ~0U);
    add(0x20, other, ~0U);
    return list;
}

/// Somebody else's file with an access list comes back below a folder that grants everything to all.
TEST_P(QuarantineFaults, AccessListComesBackAndNobodyMayMoreForAMoment) {
    if (GetParam().manyNames || ::geteuid() != 0) GTEST_SKIP() << "root and one name";
    const std::string list = accessList(6, 0, 6, 0);
    const std::string open = accessList(7, 7, 7, 7);
    makeBad();
    ASSERT_EQ(::chown(path_.c_str(), 4321, 4321), 0);
    if (::setxattr(path_.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) != 0) GTEST_SKIP();
    ::setxattr((dir_ / "share").c_str(), "system.posix_acl_default", open.data(), open.size(), 0);
    ASSERT_TRUE(take().done);
    faults::observer = [&](faults::Call, int, const char*) {
        for (const auto& entry : fs::directory_iterator(dir_ / "share")) {
            struct stat status {};
            std::array<char, 64> value{};
            ASSERT_EQ(::stat(entry.path().c_str(), &status), 0);
            if ((status.st_mode & 0077U) == 0) continue;  // the mask lets nobody but the owner in
            const ssize_t length = ::getxattr(entry.path().c_str(), "system.posix_acl_access", value.data(), 64);
            EXPECT_EQ(std::string(value.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))), list);
            EXPECT_EQ(status.st_gid, 4321U);
        }
    };
    const QuarantineResult restored = restore();
    faults::observer = {};
    ASSERT_TRUE(restored.done) << restored.message;
    std::array<char, 64> value{};
    const ssize_t length = ::getxattr(path_.c_str(), "system.posix_acl_access", value.data(), value.size());
    EXPECT_EQ(std::string(value.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))), list);
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0660U) << "the mask";
    EXPECT_EQ(status.st_uid, 4321U);
    ::removexattr(path_.c_str(), "system.posix_acl_access");
    ASSERT_TRUE(take().done);
    ASSERT_TRUE(restore().done);
    EXPECT_LT(::getxattr(path_.c_str(), "system.posix_acl_access", value.data(), value.size()), 0) << "the folder's";
}

TEST_P(QuarantineFaults, FileThatTakesTheNameAtTheLastMomentIsNotTouched) {
    makeBad();
    faults::observer = [this](faults::Call call, int, const char* name) {
        if ((call != faults::Call::RENAME && call != faults::Call::LINK) || name != std::string("virus")) return;
        faults::observer = {};
        fs::rename(path_, dir_ / "moved");
        fs::create_symlink("/etc/passwd", path_);
    };
    EXPECT_FALSE(take().done);
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_EQ(filesIn(dir_ / "store"), 0U);
}

TEST_P(QuarantineFaults, TwoTasksThatMeetTheSameFilePutItAwayOnce) {
    makeBad();
    const ScannedFile first = openBad();
    const ScannedFile second = openBad();
    QuarantineResult other;
    std::thread task;
    faults::observer = [&](faults::Call call, int, const char*) {
        if (call != faults::Call::WRITE || task.joinable()) return;
        task = std::thread([&] { other = quarantine_->take(second, {}); });
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    };
    const QuarantineResult result = quarantine_->take(first, {});
    task.join();
    EXPECT_TRUE(result.done && other.done) << result.message << other.message;
    EXPECT_EQ(result.id, other.id);
    EXPECT_EQ(quarantine_->size(), 1U);
    EXPECT_EQ(filesIn(dir_ / "store"), 2U);
}

INSTANTIATE_TEST_SUITE_P(On, QuarantineFaults,
                         testing::Values(Disk{"OneFileSystem", Renames::PLAIN, false},
                                         Disk{"OneWithoutFlags", Renames::NO_FLAGS, false},
                                         Disk{"TwoFileSystems", Renames::NOT_BETWEEN_FOLDERS, false},
                                         Disk{"ManyNames", Renames::PLAIN, true}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace keldra
