#include "tests/faults/own_disk.h"

#include "tests/harness/process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr off_t SIZE = off_t{96} << 20U;
constexpr unsigned long SHUTDOWN = _IOR('X', 125, uint32_t);
constexpr uint32_t WITHOUT_JOURNAL = 2;

/// What is mounted by this process is seen by it and its children only, and goes with them.
bool ownMounts() {
    static const bool done = ::geteuid() == 0 && ::unshare(CLONE_NEWNS) == 0 &&
                             ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return done;
}

bool run(std::vector<std::string> argv) {
    return runProgram({.argv = std::move(argv), .environment = {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}}}).status ==
           0;
}

}  // namespace

OwnDisk::OwnDisk() : where_(fs::temp_directory_path() / ("keldra-disk-" + std::to_string(::getpid()))) {
    forTemporaryFiles_ = true;
    make();
    if (mounted_) ::setenv("TMPDIR", where_.c_str(), 1);
}

OwnDisk::OwnDisk(fs::path where) : where_(std::move(where)) { make(); }

OwnDisk::~OwnDisk() {
    if (!image_.empty()) fs::remove(image_);
    if (mounted_) ::umount2(where_.c_str(), MNT_DETACH);
    if (!forTemporaryFiles_) return;
    ::unsetenv("TMPDIR");
    std::error_code ignored;
    fs::remove(where_, ignored);
}

void OwnDisk::make() {
    if (!ownMounts()) return;
    static int number = 0;
    image_ = "/dev/shm/keldra-disk-" + std::to_string(::getpid()) + "-" + std::to_string(++number);
    fs::create_directories(where_);
    ::close(::open(image_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (::truncate(image_.c_str(), SIZE) == 0 && run({"/sbin/mkfs.ext4", "-q", image_}) && mount())
        fs::remove(where_ / "lost+found");
}

bool OwnDisk::mount() { return mounted_ = run({"/bin/mount", "-o", "loop", image_, where_}); }

bool OwnDisk::unmount() {
    for (int i = 0; mounted_ && i < 200; ++i) {
        if (::umount2(where_.c_str(), 0) == 0) return !(mounted_ = false);
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return !mounted_;
}

void OwnDisk::cutPower() const {
    const int fd = ::open(where_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::ioctl(fd, SHUTDOWN, &WITHOUT_JOURNAL);
    ::close(fd);
}
