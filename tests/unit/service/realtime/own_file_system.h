#pragma once

#include "service/realtime/on_access.h"
#include "tests/harness/temp_dir.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

namespace keldra {

using namespace std::chrono_literals;

/// What another process meets that opens a file: 0 or an errno. Bounded by an alarm: 255 when it hangs.
/// `prepare`: what it does before; false for 253.
inline int openElsewhere(const std::filesystem::path& path, int flags = O_RDONLY, bool (*prepare)() = nullptr) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        if (prepare && !prepare()) _exit(253);
        const int fd = open(path.c_str(), flags);
        const int error = fd < 0 ? errno : 0;
        if (fd >= 0 && (flags & O_ACCMODE) != O_RDONLY && write(fd, "EICAR", 5) != 5) _exit(254);
        _exit(error);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

inline bool waitFor(const std::function<bool()>& condition) {
    for (int i = 0; i < 500 && !condition(); ++i) std::this_thread::sleep_for(10ms);
    return condition();
}

/// A process of its own that does something until it is killed.
class Bystander {
public:
    explicit Bystander(const std::function<void()>& body) : process_(fork()) {
        if (process_ != 0) return;
        body();
        pause();
        _exit(0);
    }
    ~Bystander() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;

private:
    const pid_t process_;
};

inline auto timeOf(const std::function<void()>& body) {
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::steady_clock::now() - begin;
}

/// A file system of its own, in a mount namespace of its own, so that nothing else on the machine is touched.
class OwnFileSystem : public ::testing::Test {
protected:
    void SetUp() override {
        std::string reason;
        if (!OnAccess::kernelAllows(&reason)) GTEST_SKIP() << "On-access tests are skipped. " << reason;
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", root().c_str(), "tmpfs", 0, "size=64m") != 0)
            GTEST_SKIP() << "On-access tests are skipped: no file system of their own: " << strerror(errno);
        mounted_ = true;
        writeFile(shared() / "clean.txt", "harmless");
        writeFile(shared() / "bad.txt", "EICAR");
        writeFile(root() / "elsewhere" / "bad.txt", "EICAR");
    }
    void TearDown() override {
        if (mounted_) umount2(root().c_str(), MNT_DETACH);
    }

    std::filesystem::path root() const { return folder_.path(); }
    std::filesystem::path shared() const { return root() / "share"; }

    TempDir folder_;
    bool mounted_ = false;
};

}  // namespace keldra
