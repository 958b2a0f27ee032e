// The bundled timer driver through a real host: the period's limits, and a
// sequence that goes on without a gap across a pause.
#include <gtest/gtest.h>

#include "common/test_host.h"
#include "common/irq_files.h"

namespace zor::test {
namespace {

struct TimerTest : HostTest {
    TestIsr isr;
    std::vector<std::uint64_t> Sequence(std::size_t atLeast = 0) {  // waits up to 10 s for `atLeast`
        std::vector<std::uint64_t> out;
        for (int i = 0; i < 2000; ++i, os::sleep_ms(5)) {
            out.clear();
            for (const auto& c : isr.Calls())
                if (c.code == ZOR_FN_INTERRUPT) out.push_back(c.arg);
            if (out.size() >= atLeast) break;
        }
        return out;
    }
};

TEST_F(TimerTest, PeriodLimitsAndASequenceWithoutGapsAcrossAPause) {
    ASSERT_NE(RegisterIsr(h, "test_isr"), 0u);
    ASSERT_EQ(h.irq.LoadIRQ(ProductDir().c_str(), u"timer.irq", false), 1u);
    const struct { std::uint32_t us, answer; } cases[] = {
        {ZOR_TIMER_FLOOR_US - 1, ZOR_TIMER_REFUSED}, {ZOR_TIMER_CEILING_US + 1, ZOR_TIMER_REFUSED},
        {2000, ZOR_TIMER_DEFAULT_US}, {100000, 2000}};
    for (const auto& c : cases) EXPECT_EQ(h.irq.Control(c.us), c.answer) << c.us;
    os::sleep_ms(20);  // an event of the old period may still be on its way
    isr.Reset();
    ASSERT_GE(Sequence(2).size(), 2u);
    EXPECT_EQ(h.irq.Control(0), 100000u);
    os::sleep_ms(50);
    const std::size_t paused = Sequence().size();
    os::sleep_ms(250);
    EXPECT_EQ(Sequence().size(), paused);
    EXPECT_EQ(h.irq.Control(100000), 0u);
    const auto seq = Sequence(paused + 2);
    ASSERT_GE(seq.size(), paused + 2);
    for (std::size_t i = 1; i < seq.size(); ++i) EXPECT_EQ(seq[i], seq[i - 1] + 1) << i;
}

}  // namespace
}  // namespace zor::test
