// The statistics area of the real host: figures that follow a known load,
// and zorctl reading them without becoming a client.
#include <memory>

#include "e2e_support.h"

namespace zor::e2e {
namespace {

// The bucket that holds half of the counts.
std::uint32_t MedianBucket(const ZorStatsHistogram& h, std::uint64_t n) {
    std::uint64_t sum = 0;
    for (std::uint32_t i = 0; i < ZOR_STATS_BUCKETS; ++i)
        if ((sum += h.count[i]) * 2 >= n) return i;
    return ZOR_STATS_BUCKETS;
}

TEST(StatsArea, FiguresFollowAKnownLoadAndReadersAreNoClients) {
    ZorInstance::Options o;
    o.testModules = {Mod("busy_isr"), Mod("faulting_isr")};
    ZorInstance zor(o);
    std::uint32_t busy = 0, faulting = 0, r = 0;
    ASSERT_EQ(zor_register_module(zor.conn(), Mod("busy_isr").c_str(), 0, &busy, nullptr), ZOR_OK);
    ASSERT_EQ(zor_register_module(zor.conn(), Mod("faulting_isr").c_str(), 0, &faulting, nullptr), ZOR_OK);
    const ZorStats* area = nullptr;
    ZorView view{};
    ASSERT_EQ(zor_stats_map(zor.Pid(), &area, &view), ZOR_OK);
    ASSERT_EQ(zor_irq_control(zor.conn(), 100, &r), ZOR_OK);
    auto s = std::make_unique<ZorStats>();
    for (int waited = 0; zor_stats_copy(area, s.get()) == ZOR_OK && s->ev.events < 100 && waited < 10000; waited += 50)
        Pause(50);
    EXPECT_EQ(s->ev.events, 100u);
    EXPECT_EQ(s->ev.sequence, 100u);
    EXPECT_EQ(s->ev.sequence_gaps, 0u);
    EXPECT_EQ(s->host_pid, zor.Pid());
    EXPECT_EQ(Narrow(s->info.irq_driver), "trigger.irq");
    const ZorStatsSlot& b = s->slots[busy];
    EXPECT_EQ(Narrow(b.name), Mod("busy_isr"));
    EXPECT_EQ(b.calls, 100u);
    EXPECT_EQ(b.faults, 0u);
    // 1 ms busy: the bucket from 0.98 to 1.05 ms; a preempted majority may
    // reach the next one.
    const std::uint32_t want = zor_stats_bucket_of_ns(1000000);
    EXPECT_GE(MedianBucket(b.call, b.calls), want);
    EXPECT_LE(MedianBucket(b.call, b.calls), want + 1);
    EXPECT_GE(MedianBucket(s->ev.event, 100), want);
    const ZorStatsSlot& f = s->slots[faulting];
    EXPECT_EQ(f.faults, 100u);
    EXPECT_EQ(f.calls, 0u);
    EXPECT_EQ(Narrow(f.fault_module), Mod("faulting_isr"));
    zor_unmap(&view);

    auto json = Ctl(zor.Pid(), {"stats", "--json"});
    EXPECT_EQ(json.code, 0u);
    EXPECT_TRUE(IsJson(json.out)) << json.out;
    EXPECT_NE(json.out.find("\"name\": \"" + Mod("faulting_isr") + "\", \"kind\": \"isr\", \"priority\": 1, \"blocked\": false, "
                            "\"calls\": 0, \"faults\": 100, \"slow_calls\": 0"),
              std::string::npos) << json.out;
    // The old watch mapped the system area and so ended the host a few
    // seconds after it exited.
    auto watch = Ctl(zor.Pid(), {"watch", "--seconds", "1"});
    EXPECT_EQ(watch.code, 0u) << watch.out;
    EXPECT_NE(watch.out.find(Mod("busy_isr")), std::string::npos) << watch.out;
    EXPECT_FALSE(zor.Exited(6000));
}

}  // namespace
}  // namespace zor::e2e
