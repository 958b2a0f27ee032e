#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "os/os.h"
#include "support/critsec.h"
#include "support/statistic.h"
#include "support/stopwatch.h"

namespace zor {
namespace {

TEST(Statistic, EmptyFilledAndReset) {
    CStatistic s;
    for (double v : {3.0, -1.0, 10.0}) s.Add(v);
    EXPECT_EQ(s.Count(), 3u);
    EXPECT_EQ(s.Min(), -1.0);
    EXPECT_EQ(s.Max(), 10.0);
    EXPECT_DOUBLE_EQ(s.Avg(), 4.0);
    s.Reset();
    EXPECT_EQ(s.Count(), 0u);
    EXPECT_EQ(s.Min(), 0.0);
    EXPECT_EQ(s.Max(), 0.0);
    s.Add(5.0);  // no stale minimum or maximum from before the reset
    EXPECT_EQ(s.Min(), 5.0);
    EXPECT_EQ(s.Max(), 5.0);
    EXPECT_EQ(s.Avg(), 5.0);
}

TEST(CritSec, RecursiveWithTheOutermostHolderNamed) {
    CCritSec cs;
    EXPECT_EQ(cs.HolderName(), nullptr);
    {
        CLock outer(cs, "csecFuncs", 120, kZorSourcePath);
        {
            CLock inner(cs, "inner", 7, "other");
            EXPECT_EQ(cs.Depth(), 2u);
            EXPECT_STREQ(cs.HolderName(), "csecFuncs");
            EXPECT_EQ(cs.HolderLine(), 120u);
        }
        EXPECT_EQ(cs.Depth(), 1u);
        EXPECT_STREQ(cs.HolderName(), "csecFuncs");
    }
    EXPECT_EQ(cs.Depth(), 0u);
    EXPECT_EQ(cs.HolderName(), nullptr);
}

TEST(StopWatch, HandlesUnitsAndCapacity) {
    StopWatches w;
    std::uint32_t h = w.OpenStopWatch();
    ASSERT_NE(h, 0u);
    os::sleep_ms(5);
    double ms = w.StopWatch(h, kUnitMilliseconds);
    double us = w.StopWatch(h, kUnitMicroseconds);
    double s = w.StopWatch(h, kUnitSeconds);
    EXPECT_GE(ms, 4.0);
    EXPECT_GE(us, ms * 1000.0);
    EXPECT_LT(s, 60.0);
    EXPECT_GE(s * 1000.0, ms * 0.999);
    EXPECT_EQ(w.StopWatch(StopWatches::kCapacity, kUnitMilliseconds), 0.0);

    std::uint32_t opened = 1;
    while (w.OpenStopWatch() != 0) ++opened;
    EXPECT_EQ(opened, StopWatches::kCapacity - 1);  // 0 is the clock
    w.CloseStopWatch(h);
    EXPECT_EQ(w.StopWatch(h, kUnitMilliseconds), 0.0);
    EXPECT_EQ(w.OpenStopWatch(), h);
    w.CloseStopWatch(0);  // the clock cannot be closed
    EXPECT_GT(w.StopWatch(0, kUnitMilliseconds), 0.0);
}

}  // namespace
}  // namespace zor
