#include "norv/ipc_message.h"
#include "norv/message_codec.h"
#include "tests/harness/scripted_service.h"
#include "tests/harness/temp_dir.h"
#include "tests/unit/support/scoped_environment.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

class Transport : public testing::Test {
protected:
    void script(const std::deque<Answer>& answers) {
        service_->on(IPCMessage::GET, IPCMessage::SERVICE_STATUS, answers);
    }

    /// Sends a request; a reply that holds something beforehand shows that it is replaced.
    bool ask(unsigned timeout = 5) {
        reply_ = IPCMessage(IPCMessage::STOP, IPCMessage::MANUAL_SCAN);
        reply_.result = 77;
        reply_.addParam("Stale", "old");
        return sendMessage(IPCMessage(IPCMessage::GET, IPCMessage::SERVICE_STATUS), reply_, timeout);
    }

    bool replyIsEmpty() const {
        return reply_.operation == 0 && reply_.commandID == 0 && reply_.result == 0 && reply_.params.empty();
    }

    TempDir folder_;
    ScopedEnvironment socket_{"KELDRA_SOCKET", (folder_ / "socket").string()};
    std::unique_ptr<ScriptedService> service_ = std::make_unique<ScriptedService>(folder_ / "socket");
    IPCMessage reply_;
};

const Answer YES = Answer::reply(IPCMessage::RESULT_OK, {{"Word", "yes"}});

TEST_F(Transport, ARequestIsAnsweredAndTheOldReplyReplaced) {
    script({YES});
    ASSERT_TRUE(ask());
    EXPECT_EQ(1, reply_.result);
    EXPECT_EQ("yes", reply_.value<std::string>("Word"));
    EXPECT_FALSE(reply_.hasParam("Stale"));
    EXPECT_TRUE(ask());
    EXPECT_EQ(2U, service_->takeRequests().size());
}

TEST_F(Transport, ALostExchangeFailsOnceAndTheNextOneWorks) {
    const struct {
        const char* what;
        Answer answer;
    } cases[] = {
        {"cut before the answer", Answer::hangUp()},      {"cut in the answer", Answer::halfFrame()},
        {"no message in the answer", Answer::garbage()},  {"an answer too large", Answer::oversized()},
        {"an empty answer", Answer::raw(frameHeader(0))},
    };
    for (const auto& c : cases) {
        script({c.answer, YES});
        EXPECT_FALSE(ask()) << c.what;
        EXPECT_TRUE(replyIsEmpty()) << c.what;
        EXPECT_EQ(1U, service_->takeRequests().size()) << c.what << ": a request was sent twice";
        EXPECT_TRUE(ask()) << c.what;
        EXPECT_EQ(1U, service_->takeRequests().size()) << c.what;
    }
}

TEST_F(Transport, ALateAnswerIsNeverTakenForTheNextOne) {
    const Answer late = Answer::reply(IPCMessage::RESULT_OK, {{"Word", "late"}});
    script({late.after(milliseconds(1300)), YES});
    const auto start = Clock::now();
    EXPECT_FALSE(ask(1));
    EXPECT_LT(Clock::now() - start, milliseconds(1250)) << "the time-out did not hold";
    EXPECT_TRUE(replyIsEmpty());
    ASSERT_TRUE(ask());
    EXPECT_EQ("yes", reply_.value<std::string>("Word"));
}

TEST_F(Transport, BytesThatNobodyAskedForAreNotRead) {
    const Answer twice = Answer::raw(YES.bytes + Answer::reply(IPCMessage::RESULT_ERROR).bytes);
    script({twice, YES});
    ASSERT_TRUE(ask());
    std::this_thread::sleep_for(milliseconds(20));
    ASSERT_TRUE(ask());
    EXPECT_EQ(1, reply_.result);
}

TEST_F(Transport, ARestartedServiceIsFoundAgain) {
    script({YES});
    ASSERT_TRUE(ask());
    service_.reset();
    EXPECT_FALSE(ask()) << "nobody listens";
    ::unlink((folder_ / "socket").c_str());
    service_ = std::make_unique<ScriptedService>(folder_ / "socket");
    script({YES});
    EXPECT_TRUE(ask());
}

TEST_F(Transport, ARequestTooLargeForAFrameIsNotSent) {
    IPCMessage request;
    request.addParam("Content", std::string(MAX_FRAME_PAYLOAD, 'x'));
    EXPECT_FALSE(sendMessage(request, reply_, 5));
    EXPECT_TRUE(service_->takeRequests().empty());
}

TEST_F(Transport, SocketsThatCannotBeReachedFailAtOnce) {
    for (const std::string& path : {(folder_ / "missing").string(), folder_.path().string(), std::string(200, 'x')}) {
        const ScopedEnvironment other("KELDRA_SOCKET", path);
        const auto start = Clock::now();
        EXPECT_FALSE(ask()) << path;
        EXPECT_TRUE(replyIsEmpty());
        EXPECT_LT(Clock::now() - start, milliseconds(500)) << path;
    }
}

/// A service that hangs: it takes no connection, and its queue is full.
TEST_F(Transport, TheTimeoutHoldsAgainstAServiceThatTakesNoConnection) {
    const std::string path = (folder_ / "full").string();
    const ScopedEnvironment other("KELDRA_SOCKET", path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto* const target = reinterpret_cast<const sockaddr*>(&address);
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int waiting = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, ::bind(listener, target, sizeof(address)));
    ASSERT_EQ(0, ::listen(listener, 0));
    ASSERT_EQ(0, ::connect(waiting, target, sizeof(address)));
    const auto start = Clock::now();
    EXPECT_FALSE(ask(1));
    EXPECT_GT(Clock::now() - start, milliseconds(900));
    EXPECT_LT(Clock::now() - start, milliseconds(1250));
    ::close(waiting);
    ::close(listener);
}

/// Bytes that trickle in do not prolong the wait.
TEST_F(Transport, TheTimeoutIsOneForTheWholeExchange) {
    script({Answer::raw(YES.bytes.substr(0, 10)).after(milliseconds(700)), YES});
    const auto start = Clock::now();
    EXPECT_FALSE(ask(1));
    EXPECT_LT(Clock::now() - start, milliseconds(1250));
}

}  // namespace
