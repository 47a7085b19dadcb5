#include "service/ctl/output.h"

#include <gtest/gtest.h>

#include <utility>

using namespace keldra;

TEST(Output, SizesAndDurationsAreWhatTheySay) {
    for (const auto& [bytes, text] : {std::pair{0ULL, "0 B"},
                                      {1023ULL, "1023 B"},
                                      {1024ULL, "1.0 KiB"},
                                      {1536ULL, "1.5 KiB"},
                                      {5ULL << 20U, "5.0 MiB"},
                                      {3ULL << 30U, "3.0 GiB"},
                                      {2ULL << 40U, "2.0 TiB"},
                                      {4096ULL << 40U, "4096.0 TiB"}})
        EXPECT_EQ(sizeText(bytes), text);
    for (const auto& [seconds, text] : {std::pair{0LL, "0 s"},
                                        {59LL, "59 s"},
                                        {60LL, "1 min 00 s"},
                                        {3599LL, "59 min 59 s"},
                                        {3600LL, "1 h 00 min"},
                                        {90061LL, "25 h 01 min"}})
        EXPECT_EQ(durationText(seconds), text);
}
