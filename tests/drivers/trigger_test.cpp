// Events from a real driver thread (the bundled trigger.irq) reaching an ISR
// module through the host, with the driver's sequence numbers.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "common/test_host.h"
#include "common/irq_files.h"

namespace zor::test {
namespace {

constexpr std::uint32_t kFreeRun = 0xFFFFFFFF;
constexpr std::uint32_t kSkip = 0x80000000;

class TriggerTest : public HostTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(file.Loaded()) << "trigger.irq not built";
        waitIdle = file.Fn<std::uint32_t (*)(std::uint32_t)>("Trigger_WaitIdle");
        threadId = file.Fn<std::uint32_t (*)()>("Trigger_ThreadId");
        ASSERT_TRUE(waitIdle && threadId);
        ASSERT_NE(RegisterIsr(h, "test_isr"), 0u);
        ASSERT_EQ(h.irq.LoadIRQ(ProductDir().c_str(), u"trigger.irq", false), 1u);
        isr.Reset();
    }
    std::vector<std::uint64_t> InterruptArgs() {
        std::vector<std::uint64_t> out;
        for (const auto& c : isr.Calls())
            if (c.code == ZOR_FN_INTERRUPT) out.push_back(c.arg);
        return out;
    }
    // Queues n events and waits until the driver delivered them.
    void Fire(std::uint32_t n) {
        h.irq.Control(n);
        ASSERT_EQ(waitIdle(10000), 1u);
    }

    PriorityRecorder priorities;
    DriverFile file{ProductDir(), u"trigger.irq"};
    std::uint32_t (*waitIdle)(std::uint32_t) = nullptr;
    std::uint32_t (*threadId)() = nullptr;
    TestIsr isr;
};

// Queued events and their numbers are also seen end to end; here the
// skipped numbers, the driver's own thread, and free running.
TEST_F(TriggerTest, SkippedAndFreeRunningEventsCarryTheDriversSequence) {
    const std::uint32_t first = h.irq.Control(kSkip | 0);  // skip nothing: the next number
    EXPECT_EQ(h.irq.Control(kSkip | 2), first + 2);
    Fire(2);
    EXPECT_EQ(InterruptArgs(), (std::vector<std::uint64_t>{first + 2, first + 3}));
    for (const auto& c : isr.Calls()) EXPECT_EQ(c.thread, threadId());
    EXPECT_EQ(h.dispatcher.DispatchThreadId(), threadId());
    EXPECT_EQ(h.irq.Query(), 2u);

    // Free-running keeps the sequence until stopped, and stopped means stopped.
    isr.Reset();
    h.irq.Control(kFreeRun);
    for (int i = 0; i < 5000 && h.irq.Query() < 300; ++i) os::sleep_ms(1);
    h.irq.Control(0);
    ASSERT_EQ(waitIdle(10000), 1u);
    const std::uint32_t delivered = h.irq.Query();
    const auto args = InterruptArgs();
    ASSERT_EQ(args.size(), std::min<std::size_t>(delivered - 2, 16384));
    for (std::size_t i = 0; i < args.size(); ++i) ASSERT_EQ(args[i], first + 4 + i) << i;
    os::sleep_ms(20);
    EXPECT_EQ(h.irq.Query(), delivered);
}

}  // namespace
}  // namespace zor::test
