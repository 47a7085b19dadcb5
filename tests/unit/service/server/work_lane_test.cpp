#include "service/server/work_lane.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace keldra {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Work that hangs until it is let go, however long after the test.
struct Hanging {
    std::promise<void> letGo;
    std::shared_future<void> gate = letGo.get_future().share();
    std::shared_ptr<std::atomic<int>> ended = std::make_shared<std::atomic<int>>(0);

    WorkLane::Work work() const {
        return [gate = gate, ended = ended] {
            gate.wait_for(seconds(30));
            ++*ended;
        };
    }
};

bool runs(WorkLane& lane) {
    auto done = std::make_shared<std::promise<void>>();
    auto future = done->get_future();
    return lane.post([done] { done->set_value(); }) && future.wait_for(seconds(5)) == std::future_status::ready;
}

TEST(WorkLaneTest, WorkThatHangsIsToldToBeLateAndHoldsNothingUp) {
    WorkLane lane({.threads = 2, .waiting = 4, .patience = milliseconds(50), .hanging = 4});
    const Hanging hanging;
    std::atomic<int> late = 0;
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(lane.post(hanging.work(), [&late] { ++late; }));
    std::this_thread::sleep_for(milliseconds(60));
    lane.sweep();
    lane.sweep();
    EXPECT_EQ(late, 2);
    EXPECT_TRUE(runs(lane));
    EXPECT_FALSE(lane.stop(milliseconds(50))) << "what hangs cannot be waited for";
}

TEST(WorkLaneTest, OnceEveryThreadHangsNothingMoreIsTakenUntilOneComesBack) {
    WorkLane lane({.threads = 1, .waiting = 4, .patience = milliseconds(20), .hanging = 2});
    Hanging hanging;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(lane.post(hanging.work())) << i;
        std::this_thread::sleep_for(milliseconds(40));
        lane.sweep();
    }
    EXPECT_FALSE(lane.post([] {}));
    hanging.letGo.set_value();
    while (*hanging.ended < 3) std::this_thread::sleep_for(milliseconds(1));
    EXPECT_TRUE(runs(lane));
    EXPECT_TRUE(lane.stop(seconds(5)));
}

TEST(WorkLaneTest, WhatWaitsTooLongIsToldSoAndNeverDone) {
    WorkLane lane({.threads = 1, .waiting = 4, .patience = milliseconds(20), .hanging = 0});
    Hanging hanging;
    std::atomic<int> done = 0;
    std::atomic<int> late = 0;
    ASSERT_TRUE(lane.post(hanging.work()));
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(lane.post([&done] { ++done; }, [&late] { ++late; }));
    std::this_thread::sleep_for(milliseconds(40));
    lane.sweep();
    EXPECT_EQ(late, 2);
    hanging.letGo.set_value();
    EXPECT_TRUE(lane.stop(seconds(5)));
    EXPECT_EQ(done, 0);
}

}  // namespace
}  // namespace keldra
