#include "service/base/memory_budget.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace keldra {
namespace {

constexpr std::uint64_t MEBIBYTE = std::uint64_t{1} << 20U;

TEST(MemoryBudget, LargeFilesAreScannedTogetherOnlyWhereBothFit) {
    MemoryBudget budget([] { return 800 * MEBIBYTE; });
    const std::stop_token never;
    EXPECT_FALSE(budget.take(700 * MEBIBYTE, never)) << "too large even alone: a quarter stays for the others";
    auto first = budget.take(400 * MEBIBYTE, never);
    ASSERT_TRUE(first);
    EXPECT_TRUE(budget.take(MEBIBYTE, never)) << "small files wait for nobody";
    EXPECT_TRUE(budget.take(200 * MEBIBYTE, never));
    auto second = std::async(std::launch::async, [&] { return budget.take(400 * MEBIBYTE, never).has_value(); });
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    first.reset();
    EXPECT_TRUE(second.get());
}

TEST(MemoryBudget, AStopEndsTheWaiting) {
    MemoryBudget budget([] { return 800 * MEBIBYTE; });
    const auto first = budget.take(400 * MEBIBYTE, {});
    std::stop_source stop;
    auto second = std::async(std::launch::async, [&] { return budget.take(400 * MEBIBYTE, stop.get_token()); });
    stop.request_stop();
    EXPECT_FALSE(second.get());
}

TEST(MemoryBudget, TheMachineTellsWhatItHas) {
    EXPECT_GT(availableMemory(), MEBIBYTE);
    EXPECT_LE(availableMemory(), physicalMemory());
}

}  // namespace
}  // namespace keldra
