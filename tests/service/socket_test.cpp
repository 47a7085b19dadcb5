#include "norv/message_codec.h"
#include "tests/service/service_test.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

namespace {

using enum IPCMessage::CommandID;

class SocketTest : public ServiceTest {};

TEST_F(SocketTest, TenThousandConnectionsAndGarbageDoNotStopTheService) {
    ASSERT_TRUE(service_.start());
    std::vector<std::unique_ptr<ServiceClient>> held;
    for (int i = 0; i < 10000; ++i) {
        auto client = std::make_unique<ServiceClient>(service_.socket());
        if (i % 3 == 0) client->sendBytes("\xff\xff\xff\xff garbage");
        if (i % 3 == 1) client->sendBytes(frameHeader(1000) + "half");
        if (held.size() < 500) held.push_back(std::move(client));
    }
    EXPECT_EQ(get(VIRUS_TYPES).result, 1);
    EXPECT_TRUE(service_.running());
}

TEST_F(SocketTest, MemoryThatRanOutForAWhileIsSurvived) {
    ASSERT_TRUE(service_.start());
    std::ifstream statm("/proc/" + std::to_string(service_.pid()) + "/statm");
    rlim_t pages = 0;
    statm >> pages;
    rlimit before{};
    ASSERT_EQ(::prlimit(service_.pid(), RLIMIT_AS, nullptr, &before), 0);
    for (int round = 0; round < 3; ++round) {
        const rlimit now{pages * 4096, before.rlim_max};
        ::prlimit(service_.pid(), RLIMIT_AS, &now, nullptr);
        std::vector<std::unique_ptr<ServiceClient>> held;
        for (int i = 0; i < 400; ++i) {
            held.push_back(std::make_unique<ServiceClient>(service_.socket()));
            held.back()->sendBytes(frameHeader(100000) + std::string(3000, 'x'));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ::prlimit(service_.pid(), RLIMIT_AS, &before, nullptr);
        held.clear();
        EXPECT_EQ(get(VIRUS_TYPES).result, 1)
            << round << (service_.running() ? " runs " : " ended ") << service_.printed();
    }
}

TEST_F(SocketTest, UnknownCommandsAreRefusedWithNothingThatLooksLikeAResult) {
    ASSERT_TRUE(service_.start());
    for (const auto& [operation, command] : std::initializer_list<std::pair<int, int>>{
             {0, 999}, {0, -1}, {2, 1}, {99, 4}, {4, 1}, {1, 22}, {5, 4}, {-2147483647 - 1, 2147483647}}) {
        const IPCMessage reply =
            ask(static_cast<IPCMessage::Operation>(operation), static_cast<IPCMessage::CommandID>(command));
        EXPECT_EQ(reply.result, 2) << operation << " " << command;
    }
    const IPCMessage status = ask(IPCMessage::GET, MANUAL_SCAN_STATUS, "RequestID", "../../etc/passwd");
    EXPECT_EQ(status.result, 2);
    EXPECT_FALSE(status.hasParam("Status"));
}

TEST_F(SocketTest, ASecondInstanceSaysSoAndTheFirstGoesOn) {
    ASSERT_TRUE(service_.start());
    for (const char* const state : {"state", "other-state"}) {
        const Command second{.argv = {serviceProgram("keldrad"), "--config", service_.file("config.xml"), "--state",
                                      service_.file(state), "--socket", service_.socket()},
                             .environment = {{"KELDRA_LOG", service_.file("log2")}},
                             .timeout = std::chrono::seconds(20)};
        const ProcessResult result = runProgram(second);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.errors.find("Another keldrad already"), std::string::npos) << result.errors;
    }
    EXPECT_EQ(get(VIRUS_TYPES).result, 1);
}

TEST_F(SocketTest, AfterAKillItStartsAgainOnTheSameSocket) {
    ASSERT_TRUE(service_.start());
    service_.crash();
    ASSERT_TRUE(std::filesystem::exists(service_.socket()));
    ASSERT_TRUE(service_.start());
    struct stat status {};
    ASSERT_EQ(::stat(service_.socket().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0660U);
    EXPECT_EQ(service_.stop(), 0);
    EXPECT_FALSE(std::filesystem::exists(service_.socket()));
}

TEST_F(SocketTest, WrongArgumentsAreExplained) {
    const Command command{.argv = {serviceProgram("keldrad"), "--config", "c", "--state", service_.file("state"),
                                   "--allow-user", "no such user"}};
    const ProcessResult result = runProgram(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("no such user"), std::string::npos);
    EXPECT_EQ(runProgram({.argv = {serviceProgram("keldrad"), "--no-such-option"}}).status, 2);
    EXPECT_EQ(runProgram({.argv = {serviceProgram("keldrad"), "--help"}}).status, 0);
}

}  // namespace
