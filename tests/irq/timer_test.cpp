// The bundled timer driver through a real host: the period's limits, and a
// sequence that goes on without a gap across a pause.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "common/test_host.h"
#include "irq/irq_files.h"

namespace zor::test {
namespace {

class TimerTest : public HostTest {
protected:
    void SetUp() override {
        ASSERT_NE(RegisterIsr(h, "test_isr"), 0u);
        ASSERT_EQ(h.irq.LoadIRQ(ProductDir().c_str(), u"timer.irq", false), 1u);
    }
    std::vector<std::uint64_t> Sequence() {
        std::vector<std::uint64_t> out;
        for (const auto& c : isr.Calls())
            if (c.code == ZOR_FN_INTERRUPT) out.push_back(c.arg);
        return out;
    }
    bool WaitEvents(std::size_t n) {
        for (int i = 0; i < 2000 && Sequence().size() < n; ++i) os::sleep_ms(5);
        return Sequence().size() >= n;
    }
    TestIsr isr;
};

TEST_F(TimerTest, PeriodLimitsAndASequenceWithoutGapsAcrossAPause) {
    const struct { std::uint32_t us, answer; } cases[] = {
        {ZOR_TIMER_FLOOR_US - 1, ZOR_TIMER_REFUSED}, {ZOR_TIMER_CEILING_US + 1, ZOR_TIMER_REFUSED},
        {2000, ZOR_TIMER_DEFAULT_US}, {100000, 2000}};
    for (const auto& c : cases) EXPECT_EQ(h.irq.Control(c.us), c.answer) << c.us;
    EXPECT_EQ(h.irq.Query(), 100000u);
    os::sleep_ms(20);  // an event of the old period may still be on its way
    isr.Reset();
    ASSERT_TRUE(WaitEvents(2));
    EXPECT_EQ(h.irq.Control(0), 100000u);
    EXPECT_EQ(h.irq.Query(), 0u);
    os::sleep_ms(50);
    const std::size_t paused = Sequence().size();
    os::sleep_ms(250);
    EXPECT_EQ(Sequence().size(), paused);
    EXPECT_EQ(h.irq.Control(100000), 0u);
    ASSERT_TRUE(WaitEvents(paused + 2));
    const auto seq = Sequence();
    for (std::size_t i = 1; i < seq.size(); ++i) EXPECT_EQ(seq[i], seq[i - 1] + 1) << i;
}

}  // namespace
}  // namespace zor::test
