#include "service/server/slow_facts.h"

#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace keldra {
namespace {

TEST(SlowFactsTest, ALookTellsRootsThatAreGoneOrEmptyAndFindsThatStillLieThere) {
    const TempDir dir;
    std::filesystem::create_directory(dir / "empty");
    writeFile(dir / "full" / "bad.exe", "x");
    const std::string bad = dir / "full" / "bad.exe";
    const std::string gone = dir / "gone";
    const SlowQuestions questions{{dir / "full", dir / "empty", gone, bad},
                                  dir.path(),
                                  {{gone, "2"}, {bad, "1"}, {bad, "0"}, {dir / "empty", "0"}}};
    const SlowFacts facts = lookAtDisks(questions, [](const std::string&) {});
    EXPECT_EQ(facts.roots, 4U);
    EXPECT_EQ(facts.missingRoots, std::vector<std::string>{gone});
    EXPECT_EQ(facts.emptyRoots, std::vector<std::string>{dir / "empty"});
    EXPECT_EQ(std::tuple(facts.untreated, facts.untreatedExample, facts.untreatedScan), std::tuple(1U, bad, "1"));
    EXPECT_GT(facts.stateFree, 0U);
    EXPECT_GE(facts.stateSize, facts.stateFree);
}

TEST(SlowFactsTest, ALookIsTakenAgainWhenAskedForAndNothingIsAskedAfterTheEnd) {
    const TempDir dir;
    int asked = 0;
    {
        SlowFactsWatch watch([&] { return ++asked, SlowQuestions{{dir / "share"}, dir.path(), {}}; }, 3600000);
        EXPECT_EQ(watch.facts().missingRoots.size(), 1U) << "the first answer waits for the first look";
        std::filesystem::create_directory(dir / "share");
        watch.lookAgain();
        for (int i = 0; i < 500 && !watch.facts().missingRoots.empty(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_TRUE(watch.facts().missingRoots.empty());
        watch.stop();
        watch.lookAgain();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(asked, 2);
}

}  // namespace
}  // namespace keldra
