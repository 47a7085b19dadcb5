#include "service/realtime/access_queue.h"

#include "tests/harness/temp_dir.h"

#include <fcntl.h>

#include <gtest/gtest.h>

using namespace keldra;

namespace {

class AccessQueueTest : public ::testing::Test {
protected:
    /// An access to a file of its own that somebody waits for, or that was written.
    AccessQueue::Item access(uid_t user, bool waiting = true) {
        const auto path = folder_ / std::to_string(++files_);
        writeFile(path, "content");
        FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        const int fd = file.get();
        auto item = std::make_shared<FileAccess>(group_, std::move(file), path, false);
        item->setUser(user);
        if (waiting) item->setOpener(std::make_shared<WaitingOpener>(group_, fd, path, SteadyTime::max()));
        return item;
    }
    uid_t nextUser(AccessQueue& queue, Lane lane) { return queue.pop(lane)->user(); }

    TempDir folder_;
    int files_ = 0;
    const std::shared_ptr<const FanotifyGroup> group_ = std::make_shared<FanotifyGroup>();
};

TEST_F(AccessQueueTest, UsersTakeTurns) {
    AccessQueue queue({});
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(queue.push(Lane::QUICK, access(1)));
    ASSERT_TRUE(queue.push(Lane::QUICK, access(2)));
    EXPECT_EQ(nextUser(queue, Lane::QUICK), 1U);
    EXPECT_EQ(nextUser(queue, Lane::QUICK), 2U) << "the other one has a scan under way";
    EXPECT_EQ(nextUser(queue, Lane::QUICK), 1U);
    ASSERT_TRUE(queue.push(Lane::QUICK, access(2)));
    queue.done(Lane::QUICK, {.file = {}, .user = 2});
    EXPECT_EQ(nextUser(queue, Lane::QUICK), 2U);

    ASSERT_TRUE(queue.push(Lane::SLOW, access(1)));
    ASSERT_TRUE(queue.push(Lane::SLOW, access(1)));
    EXPECT_EQ(nextUser(queue, Lane::SLOW), 1U);
    ASSERT_TRUE(queue.push(Lane::SLOW, access(2)));
    EXPECT_EQ(nextUser(queue, Lane::SLOW), 2U) << "no user has all that scan slow files";
}

TEST_F(AccessQueueTest, AFullLaneTakesNoMoreAndNoUserFillsIt) {
    AccessQueue queue({.waiting = 4, .background = 4});
    for (const Lane lane : {Lane::QUICK, Lane::SLOW, Lane::BACKGROUND}) {
        EXPECT_TRUE(queue.push(lane, access(1)));
        EXPECT_TRUE(queue.push(lane, access(1)));
        EXPECT_FALSE(queue.push(lane, access(1))) << "half of the lane";
        EXPECT_TRUE(queue.push(lane, access(2)));
        EXPECT_TRUE(queue.push(lane, access(3)));
        EXPECT_FALSE(queue.push(lane, access(4))) << "all of it";
    }
}

TEST_F(AccessQueueTest, AFileWhoseScanTookTooLongIsKnownUntilItIsScanned) {
    AccessQueue queue({});
    const auto late = access(1);
    const auto written = access(1, false);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(queue.push(Lane::BACKGROUND, late));
        ASSERT_TRUE(queue.push(Lane::BACKGROUND, written));
    }
    EXPECT_EQ(queue.waiting(Lane::BACKGROUND), 2U) << "none twice";
    EXPECT_TRUE(queue.isSlow(*late));
    EXPECT_FALSE(queue.isSlow(*written));
    const auto next = queue.pop(Lane::BACKGROUND);
    EXPECT_TRUE(queue.isSlow(*next));
    queue.done(Lane::BACKGROUND, AccessQueue::scannedOf(*next));
    EXPECT_FALSE(queue.isSlow(*late));
}

}  // namespace
