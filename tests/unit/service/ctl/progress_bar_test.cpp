#include "service/ctl/progress_bar.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

using keldra::progressLine;

TEST(ProgressLine, SaysHowFarAndNeverRunsOverTheEdge) {
    struct Case {
        std::uint64_t done;
        std::uint64_t total;
        std::string line;
    };
    for (const Case& c :
         {Case{0, 0, "[------------------------]  -- % x"}, Case{1, 2, "[############------------]  50 % x"},
          Case{9, 8, "[########################] 100 % x"}})
        EXPECT_EQ(progressLine(c.done, c.total, "x", 80), c.line);
    EXPECT_EQ(progressLine(1, 2, std::string(200, 'x'), 79).size(), 79U);
}
