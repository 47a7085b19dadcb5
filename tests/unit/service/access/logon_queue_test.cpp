#include "service/access/logon_queue.h"
#include "service/access/logon_guard.h"
#include "tests/unit/service/test_clock.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace keldra {
namespace {

class LogonQueueTest : public testing::Test {
protected:
    void put(const std::string& address) {
        EXPECT_EQ(guard_.admit(address), "");
        queue_.put(
            guard_.placeOf(address), [this, address] { looked_.push_back(address); },
            [this, address] { refused_.push_back(address); });
    }
    void serve() {
        queue_.serve([](const LogonQueue::Look& look) { return look(), true; });
    }
    /// Milliseconds until an address has had its turn, or patience has run out.
    std::int64_t waitOf(const std::string& address) {
        const std::int64_t begin = clock_.milliseconds;
        for (serve(); !saw(address) && clock_.milliseconds - begin < LogonQueue::PATIENCE; serve())
            clock_.milliseconds += queue_.wait().value_or(1);
        return clock_.milliseconds - begin;
    }
    bool saw(const std::string& address) const {
        return std::find(looked_.begin(), looked_.end(), address) != looked_.end();
    }
    void crowd(const std::string& network, int count) {
        for (int i = 0; i < count; ++i) put(network + "." + std::to_string(i / 250) + "." + std::to_string(i % 250));
    }

    TestClock clock_;
    LogonGuard guard_{clock_};
    LogonQueue queue_{clock_};
    std::vector<std::string> looked_;
    std::vector<std::string> refused_;
};

TEST_F(LogonQueueTest, WhoGuessesFromManyAddressesMakesOthersWaitForOneTurnOfEachOfHisNeighbourhoods) {
    crowd("198.18", 250);
    serve();
    EXPECT_EQ(looked_.size(), static_cast<std::size_t>(LogonQueue::FIRST_TURNS)) << "at once, then at a pace";
    for (int i = 0; i < 100; ++i) put("2001:db8:7:" + std::to_string(i) + "::1");
    put("203.0.113.7");
    EXPECT_LE(waitOf("203.0.113.7"), 2 * LogonQueue::PACE);
    // With a slip: behind one turn of each of the others.
    put("203.0.113.7");
    looked_.clear();
    EXPECT_LE(waitOf("203.0.113.7"), 3 * LogonQueue::PACE);
    guard_.know("10.0.0.1");
    put("10.0.0.1");
    EXPECT_EQ(waitOf("10.0.0.1"), 0);
    queue_.took(500);
    looked_.clear();
    clock_.milliseconds += 10'000;
    serve();
    EXPECT_LE(looked_.size(), 5U) << "a quarter of a slow processor";
}

TEST_F(LogonQueueTest, FarMoreNeighboursThanThereIsRoomForCrowdOutThemselvesOnly) {
    for (int i = 0; i < 60; ++i) put("192.0." + std::to_string(i) + ".1");
    looked_.clear();
    crowd("198.18", 2000);
    EXPECT_EQ(refused_.size(), 60U + 2000U - LogonQueue::MOST);
    EXPECT_TRUE(std::none_of(refused_.begin(), refused_.end(), [](const auto& one) { return one.starts_with("192"); }));
    put("203.0.113.7");
    EXPECT_LE(waitOf("203.0.113.7"), 7000);
    EXPECT_EQ(std::count(refused_.begin(), refused_.end(), "203.0.113.7"), 0);
    clock_.milliseconds += LogonQueue::PATIENCE;
    serve();
    EXPECT_EQ(queue_.wait(), std::nullopt) << "what waited too long is refused";
    EXPECT_EQ(looked_.size() + refused_.size(), 2061U);
}

TEST_F(LogonQueueTest, WhatTheLaneHasNoRoomForWaits) {
    put("203.0.113.7");
    queue_.serve([](const LogonQueue::Look&) { return false; });
    EXPECT_TRUE(queue_.wait());
    serve();
    EXPECT_TRUE(saw("203.0.113.7"));
    EXPECT_FALSE(queue_.wait());
}

}  // namespace
}  // namespace keldra
