#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>

#include "os/os.h"
#include "support/critsec.h"
#include "support/entry_list.h"
#include "support/statistic.h"
#include "support/stopwatch.h"

namespace zor {
namespace {

std::uint64_t At(CEntryList& l, std::uint32_t i) {
    std::uint64_t v;
    std::memcpy(&v, l.GetEntry(i), sizeof v);
    return v;
}

TEST(EntryList, FixedCapacityCopiesByValueAndDeleteClosesTheGap) {
    CEntryList list(8, 500);  // as the page locker makes it
    for (std::uint64_t v = 0; v < 500; ++v) {
        std::uint64_t copy = v * 3;
        ASSERT_EQ(list.AppendEntry(&copy), v);
        copy = 0xDEAD;  // the list kept its own copy
    }
    std::uint64_t extra = 1;
    EXPECT_EQ(list.AppendEntry(&extra), 0xFFFFFFFFu);
    EXPECT_EQ(list.GetNrOfEntries(), 500u);
    EXPECT_EQ(At(list, 499), 1497u);
    EXPECT_EQ(list.GetEntry(500), nullptr);
    while (list.GetNrOfEntries() > 5) list.DelEntry(5);
    for (std::uint32_t i = 0; i < 5; ++i) {
        std::uint64_t v = 10 + i;
        std::memcpy(list.GetEntry(i), &v, sizeof v);
    }
    EXPECT_NE(list.DelEntry(1), 0xFFFFFFFFu);
    EXPECT_NE(list.DelEntry(3), 0xFFFFFFFFu);  // the last one now
    ASSERT_EQ(list.GetNrOfEntries(), 3u);
    EXPECT_EQ(At(list, 0), 10u);
    EXPECT_EQ(At(list, 1), 12u);
    EXPECT_EQ(At(list, 2), 13u);
    EXPECT_EQ(list.DelEntry(3), 0xFFFFFFFFu);
    EXPECT_EQ(list.GetNrOfEntries(), 3u);
    std::uint64_t v = 15;
    EXPECT_EQ(list.AppendEntry(&v), 3u);  // freed room is usable again
    EXPECT_EQ(At(list, 3), 15u);
    EXPECT_EQ(list.AppendEntry(&v), 4u);
    while (list.GetNrOfEntries()) list.DelEntry(0);
    EXPECT_EQ(list.DelEntry(0), 0xFFFFFFFFu);
}

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
        EXPECT_STREQ(cs.HolderFile(), "RuntimeComponents\\src\\ZOR\\ZorOld");
    }
    EXPECT_EQ(cs.Depth(), 0u);
    EXPECT_EQ(cs.HolderName(), nullptr);
    EXPECT_EQ(cs.HolderLine(), 0u);
}

TEST(CritSec, ExcludesOtherThreads) {
    CCritSec cs;
    std::atomic<int> inside{0};
    std::atomic<bool> otherHad{false};
    std::thread other;
    {
        CLock lock(cs, "main", 1, "f");
        other = std::thread([&] {
            CLock l(cs, "other", 2, "g");
            otherHad = inside.load() == 0 && std::strcmp(cs.HolderName(), "other") == 0;
        });
        inside = 1;
        os::sleep_ms(20);  // gives the other thread time to try
        inside = 0;
    }
    other.join();
    EXPECT_TRUE(otherHad.load());
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
    EXPECT_EQ(w.StopWatch(h, 2), 0.0);  // unknown unit
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
