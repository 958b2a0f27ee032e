// The sample client's percentiles: what it prints must match the intervals
// the module recorded.
#include <gtest/gtest.h>

#include <memory>

#include "latency_client/histogram.h"

namespace {

std::unique_ptr<LatencyShared> Block() {
    auto s = std::make_unique<LatencyShared>();
    std::memset(s.get(), 0, sizeof *s);
    return s;
}

void Record(LatencyShared* s, std::uint64_t ns, std::uint32_t times) {
    std::uint64_t b = ns / LATENCY_BUCKET_NS;
    if (b >= LATENCY_BUCKETS) b = LATENCY_BUCKETS - 1;
    s->buckets[b] += times;
    s->intervals += times;
    s->sum_interval_ns += ns * times;
    if (s->min_interval_ns == 0 || ns < s->min_interval_ns) s->min_interval_ns = ns;
    if (ns > s->max_interval_ns) s->max_interval_ns = ns;
}

}  // namespace

TEST(LatencyHistogram, PercentilesAndJitterOfAOneKilohertzSource) {
    auto s = Block();
    Record(s.get(), 1000000, 980);  // 1.000 ms
    Record(s.get(), 1250000, 15);   // late ticks
    Record(s.get(), 5000000, 5);    // a 5 ms stall
    const latency::Summary r = latency::Summarize(*s);
    EXPECT_EQ(r.intervals, 1000u);
    EXPECT_NEAR(r.p50_us, 1005.0, 0.01);   // middle of the 1.000-1.010 ms bucket
    EXPECT_NEAR(r.p99_us, 1255.0, 0.01);   // 995 of 1000 at or below 1.25 ms
    EXPECT_NEAR(r.p999_us, 5005.0, 0.01);
    EXPECT_NEAR(r.mean_us, 1023.75, 0.01);
    EXPECT_NEAR(r.max_us, 5000.0, 0.01);
    EXPECT_NEAR(r.jitter_max_us, 5000.0 - 1023.75, 0.01);
    EXPECT_LT(r.jitter_p50_us, 25.0);
    EXPECT_GT(r.jitter_p99_us, 200.0);
}

TEST(LatencyHistogram, SnapshotRefusesABlockBeingWritten) {
    auto s = Block();
    Record(s.get(), 1000000, 3);
    auto out = Block();
    s->generation = 7;  // odd: the module is in the middle of an update
    EXPECT_FALSE(latency::Snapshot(s.get(), out.get(), 5));
    s->generation = 8;
    ASSERT_TRUE(latency::Snapshot(s.get(), out.get(), 5));
    EXPECT_EQ(out->intervals, 3u);
}
