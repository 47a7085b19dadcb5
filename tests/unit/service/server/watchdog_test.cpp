#include "service/server/watchdog.h"

#include "tests/harness/temp_dir.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace keldra;
using namespace std::chrono_literals;

namespace {

/// Stands for the service manager.
class WatchdogTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string path = folder_ / "manager";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
        setenv("WATCHDOG_USEC", "200000", 1);
    }
    void TearDown() override {
        for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
        close(socket_);
    }
    /// Signs of life within twice the time that the manager waits for one.
    int signs(const Watchdog::Probe& probe, const Watchdog::Check& check) {
        asio::io_context io;
        Watchdog watchdog(io, probe, check);
        watchdog.start();
        io.run_for(400ms);
        int count = 0;
        std::array<char, 100> text{};
        for (ssize_t length = 0; (length = recv(socket_, text.data(), text.size(), MSG_DONTWAIT)) > 0; ++count)
            EXPECT_EQ(std::string(text.data(), static_cast<std::size_t>(length)), "WATCHDOG=1");
        return count;
    }

    TempDir folder_;
    const int socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST_F(WatchdogTest, SignsOfLifeComeInTimeAsLongAsEverythingWorks) {
    const Watchdog::Probe works = [](const std::function<void()>& done) { done(); };
    const Watchdog::Check good = [] { return true; };
    EXPECT_GE(signs(works, good), 4);
    EXPECT_EQ(signs([](const std::function<void()>&) {}, good), 1) << "the threads are not heard of any more";
    EXPECT_EQ(signs(works, [] { return false; }), 0);
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(signs(works, good), 0) << "meant for another process";
}

}  // namespace
