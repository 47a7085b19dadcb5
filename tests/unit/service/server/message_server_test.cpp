#include "service/server/message_server.h"

#include "norv/message_codec.h"
#include "tests/harness/child_user.h"
#include "tests/harness/service_client.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace keldra {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Waits in the handler until the test lets it go.
constexpr int32_t SLOW_COMMAND = 77;
/// Finds no memory in the handler.
constexpr int32_t FAILING_COMMAND = 78;

class MessageServerTest : public testing::Test {
protected:
    MessageServerTest() {
        limits_.connections = 20;
        limits_.frameTime = milliseconds(300);
        limits_.bufferedBytes = std::size_t{20} << 20U;
        letGoFuture_ = letGo_.get_future().share();
    }
    ~MessageServerTest() override { stop(); }

    void start() {
        const auto answer = [this](IPCMessage request, const Caller&, Reply reply) {
            if (request.commandID == FAILING_COMMAND) throw std::bad_alloc();
            if (request.commandID != SLOW_COMMAND) return reply({replyTo(request)});
            slow_.emplace_back([this, request, reply] {
                letGoFuture_.wait_for(seconds(20));
                reply({replyTo(request)});
            });
        };
        server_ = std::make_unique<MessageServer>(io_, access_, limits_, answer);
        std::string error;
        ASSERT_TRUE(server_->listen(socket_, error)) << error;
        server_->start();
        thread_ = std::thread([this] { io_.run(); });
    }
    void stop() {
        if (!thread_.joinable()) return;
        asio::post(io_, [this] { server_->stop(); });
        thread_.join();
    }
    static IPCMessage replyTo(const IPCMessage& request) {
        IPCMessage reply;
        reply.commandID = request.commandID;
        reply.result = IPCMessage::RESULT_OK;
        return reply;
    }
    static std::string frame(int32_t command) {
        std::string payload;
        encodeMessage(IPCMessage(IPCMessage::GET, static_cast<IPCMessage::CommandID>(command)), payload);
        return frameHeader(payload.size()) + payload;
    }
    bool serves() const {
        const auto reply = askService(socket_, IPCMessage(IPCMessage::GET, IPCMessage::VIRUS_TYPES), seconds(10));
        return reply && reply->result == IPCMessage::RESULT_OK && reply->commandID == IPCMessage::VIRUS_TYPES;
    }
    static std::string frame() { return frame(IPCMessage::VIRUS_TYPES); }

    TempDir dir_;
    const std::filesystem::path socket_ = dir_ / "socket";
    asio::io_context io_;
    ServerLimits limits_;
    ServerAccess access_;
    std::promise<void> letGo_;
    std::shared_future<void> letGoFuture_;
    std::unique_ptr<MessageServer> server_;
    std::vector<std::jthread> slow_;
    std::thread thread_;
};

TEST_F(MessageServerTest, OneConnectionCarriesManyRequestsHoweverTheyAreCut) {
    start();
    ServiceClient client(socket_);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(client.ask(IPCMessage(IPCMessage::GET, IPCMessage::VIRUS_TYPES)).has_value());
    const std::string bytes = frame();
    for (const char byte : bytes) ASSERT_TRUE(client.sendBytes(std::string_view(&byte, 1)));
    EXPECT_TRUE(client.receiveFrame().has_value());
    client.sendBytes(bytes + bytes);
    EXPECT_TRUE(client.receiveFrame().has_value());
    EXPECT_TRUE(client.receiveFrame().has_value());
}

TEST_F(MessageServerTest, MalformedBytesCostTheirOwnConnectionOnly) {
    start();
    ServiceClient honest(socket_);
    const std::string good = frame();
    const std::vector<std::string> attacks{
        std::string(4, '\0'),
        "\xff\xff\xff\xff",
        std::string("\x01\x00\x00\x01", 4),
        "GET / HTTP/1.1\r\n\r\n",
        frameHeader(3) + "abc",
        frameHeader(good.size() - 3) + good.substr(4) + "x",
        frameHeader(good.size() - 5) + good.substr(4, good.size() - 5),
    };
    for (const std::string& bytes : attacks) {
        ServiceClient attacker(socket_);
        attacker.sendBytes(bytes);
        EXPECT_TRUE(attacker.closedWithin(seconds(5))) << testing::PrintToString(bytes);
    }
    EXPECT_TRUE(honest.ask(IPCMessage(IPCMessage::GET, IPCMessage::VIRUS_TYPES)).has_value());
}

TEST_F(MessageServerTest, AFrameThatNeverEndsIsNotWaitedFor) {
    start();
    ServiceClient half(socket_);
    half.sendBytes(frameHeader(MAX_FRAME_PAYLOAD) + "a beginning");
    ServiceClient header(socket_);
    header.sendBytes(std::string(1, '\0'));
    EXPECT_TRUE(half.closedWithin(seconds(5)));
    EXPECT_TRUE(header.closedWithin(seconds(5)));
    EXPECT_TRUE(serves());
}

TEST_F(MessageServerTest, AnnouncedBytesTakeNoMemoryUntilTheyCome) {
    start();
    // Together these announce far more than may be buffered.
    std::vector<std::unique_ptr<ServiceClient>> clients;
    for (int i = 0; i < 15; ++i) {
        clients.push_back(std::make_unique<ServiceClient>(socket_));
        clients.back()->sendBytes(frameHeader(MAX_FRAME_PAYLOAD) + "x");
    }
    EXPECT_TRUE(serves());
}

TEST_F(MessageServerTest, ASlowHandlerHoldsNobodyElseUp) {
    start();
    ServiceClient slow(socket_);
    slow.sendBytes(frame(SLOW_COMMAND));
    EXPECT_TRUE(serves());
    letGo_.set_value();
    EXPECT_TRUE(slow.receiveFrame().has_value());
}

TEST_F(MessageServerTest, AHandlerThatFailsCostsItsConnectionAndTheClientIsTold) {
    start();
    ServiceClient client(socket_);
    client.sendBytes(frame(FAILING_COMMAND));
    const auto payload = client.receiveFrame();
    IPCMessage reply;
    ASSERT_TRUE(payload && decodeMessage(*payload, reply));
    EXPECT_EQ(reply.result, IPCMessage::RESULT_ERROR);
    EXPECT_TRUE(client.closedWithin(seconds(5)));
    EXPECT_TRUE(serves());
}

TEST_F(MessageServerTest, WhoWaitsForAReplyIsNotClosedToMakeRoom) {
    limits_.connections = 3;
    start();
    ServiceClient slow(socket_);
    slow.sendBytes(frame(SLOW_COMMAND));
    std::vector<std::unique_ptr<ServiceClient>> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<ServiceClient>(socket_));
        EXPECT_TRUE(clients.back()->ask(IPCMessage(IPCMessage::GET, IPCMessage::VIRUS_TYPES))) << i;
    }
    letGo_.set_value();
    EXPECT_TRUE(slow.receiveFrame().has_value());
}

TEST_F(MessageServerTest, OnlyUsersWhoAreAllowedAreAnswered) {
    if (!mayBecomeAnotherUser()) GTEST_SKIP() << "only root can be another user";
    constexpr uid_t ALLOWED = 12345;
    access_.users = {ALLOWED};
    start();
    openToUsers(socket_);
    const IPCMessage request(IPCMessage::GET, IPCMessage::VIRUS_TYPES);
    EXPECT_EQ(resultsAsUser(ALLOWED, socket_, {request}), std::vector<int>{1});
    EXPECT_EQ(resultsAsUser(ALLOWED + 1, socket_, {request}), std::vector<int>{});
    EXPECT_TRUE(serves());
}

TEST_F(MessageServerTest, IdleConnectionsMakeRoomForNewOnes) {
    start();
    std::vector<std::unique_ptr<ServiceClient>> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(std::make_unique<ServiceClient>(socket_));
        ASSERT_TRUE(clients.back()->connected());
    }
    EXPECT_TRUE(serves());
}

TEST_F(MessageServerTest, RunningOutOfDescriptorsIsSurvived) {
    limits_.connections = 100000;
    start();
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{64, before.rlim_max};
    std::vector<std::unique_ptr<ServiceClient>> clients;
    ASSERT_TRUE(serves());
    ::setrlimit(RLIMIT_NOFILE, &few);
    // Both ends live in this process: at the limit either this end or the server's cannot be opened.
    for (int i = 0; i < 80; ++i) clients.push_back(std::make_unique<ServiceClient>(socket_));
    std::this_thread::sleep_for(milliseconds(300));
    ::setrlimit(RLIMIT_NOFILE, &before);
    clients.clear();
    EXPECT_TRUE(serves());
}

TEST_F(MessageServerTest, ALiveServiceKeepsItsSocketAndADeadOneLosesIt) {
    start();
    std::string error;
    asio::io_context io;
    {
        MessageServer second(io, {}, {}, [](const IPCMessage&, const Caller&, const Reply&) {});
        EXPECT_FALSE(second.listen(socket_, error));
        EXPECT_NE(error.find("already listens"), std::string::npos) << error;
    }
    EXPECT_TRUE(serves());
    stop();

    // What a killed service leaves: a socket file that nobody listens on, before long.
    const int left = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    socket_.string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(left, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    // Killed while it started a program: the child holds the socket a moment longer.
    ASSERT_EQ(::listen(left, 128), 0);
    std::jthread child([left] {
        std::this_thread::sleep_for(milliseconds(200));
        ::close(left);
    });
    MessageServer third(io, {}, {}, [](const IPCMessage&, const Caller&, const Reply&) {});
    EXPECT_TRUE(third.listen(socket_, error)) << error;
    struct stat status {};
    ASSERT_EQ(::stat(socket_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0660U);
}

TEST_F(MessageServerTest, AFileThatIsNoSocketIsNotRemoved) {
    ::writeFile(socket_, "precious");
    MessageServer server(io_, {}, {}, [](const IPCMessage&, const Caller&, const Reply&) {});
    std::string error;
    EXPECT_FALSE(server.listen(socket_, error));
    EXPECT_EQ(::readFile(socket_), "precious");
    EXPECT_FALSE(server.listen(dir_ / std::string(200, 'x'), error));
    EXPECT_NE(error.find("too long"), std::string::npos) << error;
}

}  // namespace
}  // namespace keldra
