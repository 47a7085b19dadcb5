#include "norv/message_codec.h"
#include "tests/service/service_test.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

// Pages' questions without end over ever new connections: what they cost is given back. In short some thousands;
// KELDRA_REQUESTS says how many else.

namespace {

using enum IPCMessage::CommandID;
namespace fs = std::filesystem;

constexpr int CLIENTS = 4;
constexpr int ON_ONE_CONNECTION = 20;
constexpr std::size_t HALF_FRAMES = 2000;
constexpr std::size_t ANNOUNCED = 65536;
constexpr std::size_t SENT = 8192;
constexpr long MOST_GROWTH = 3L * 1024;  // KiB

class RequestCampaign : public ServiceTest {
protected:
    RequestCampaign() { EXPECT_TRUE(service_.start()); }

    static int wantedRequests() {
        if (const char* const wanted = std::getenv("KELDRA_REQUESTS")) return std::atoi(wanted);
        return std::getenv("KELDRA_LONG_FAULTS") ? 1'000'000 : 8'000;
    }
    /// KiB.
    long memory() {
        const std::string status = readFile("/proc/" + std::to_string(service_.pid()) + "/status");
        const std::size_t at = status.find("VmRSS:");
        return at == std::string::npos ? 0 : std::stol(status.substr(at + 6));
    }
    std::ptrdiff_t descriptors() {
        return std::distance(fs::directory_iterator("/proc/" + std::to_string(service_.pid()) + "/fd"), {});
    }
    void askSo(int count) {
        constexpr std::array COMMANDS{CONFIG_FILE_STATE, MANUAL_SCAN_CONFIG, SERVICE_STATUS, QUARANTINE,
                                      SCAN_HISTORY,      SESSIONS,           EVENTS,         UPDATE_STATUS,
                                      VIRUS_TYPES};
        std::atomic<int> left = count;
        std::atomic<int> failed = 0;
        const auto client = [&] {
            for (std::size_t n = 0; left > 0;) {
                ServiceClient connection(service_.socket());
                for (int i = 0; i < ON_ONE_CONNECTION && left-- > 0; ++i) {
                    const auto reply = connection.ask(IPCMessage(IPCMessage::GET, COMMANDS.at(n++ % COMMANDS.size())));
                    if (!reply || reply->result != 1) ++failed;
                }
            }
        };
        {
            std::vector<std::jthread> clients;
            clients.reserve(CLIENTS);
            for (int i = 0; i < CLIENTS; ++i) clients.emplace_back(client);
        }
        EXPECT_EQ(failed, 0);
    }
    void expectAsBefore(long memoryBefore, std::ptrdiff_t descriptorsBefore, const std::string& what) {
        for (int i = 0; i < 100 && (descriptors() > descriptorsBefore || memory() > memoryBefore + MOST_GROWTH); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_LE(descriptors(), descriptorsBefore + 1) << what;
        EXPECT_LT(memory(), memoryBefore + MOST_GROWTH) << what;
        std::cout << what << ": " << memoryBefore << " -> " << memory() << " KiB, " << descriptorsBefore << " -> "
                  << descriptors() << " descriptors\n";
    }
};

TEST_F(RequestCampaign, ManyRequestsOverManyConnectionsKeepNothing) {
    const int count = wantedRequests();
    askSo(count / 10);
    const long memoryBefore = memory();
    const std::ptrdiff_t descriptorsBefore = descriptors();
    askSo(count);
    expectAsBefore(memoryBefore, descriptorsBefore, std::to_string(count) + " requests");
}

TEST_F(RequestCampaign, ConnectionsWithHalfARequestKeepNothingAndHoldUpNobody) {
    askSo(200);
    const long memoryBefore = memory();
    const std::ptrdiff_t descriptorsBefore = descriptors();
    {
        std::vector<std::unique_ptr<ServiceClient>> clients;
        clients.reserve(HALF_FRAMES);
        for (std::size_t i = 0; i < HALF_FRAMES; ++i) {
            clients.push_back(std::make_unique<ServiceClient>(service_.socket()));
            clients.back()->sendBytes(frameHeader(ANNOUNCED) + std::string(SENT, 'x'));
        }
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(get(SERVICE_STATUS).result, 1);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
        std::cout << "with " << HALF_FRAMES << " half requests: " << memory() << " KiB\n";
    }
    expectAsBefore(memoryBefore, descriptorsBefore, "2000 connections");
}

}  // namespace
