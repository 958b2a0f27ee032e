// Pausing the dispatch around registry changes, and blocking single ISRs.
#include <gtest/gtest.h>

#include "common/test_host.h"

namespace zor::test {
namespace {

// An ISR sitting in a long Interrupt on the dispatch thread.
class BusyIsr : public HostTest {
protected:
    void Start(std::uint32_t sleepMs) {
        slot = RegisterIsr(h, "test_isr");
        isr.SetDelay(ZOR_FN_INTERRUPT, sleepMs * 1000);
        irq.FireAsync(1);
        for (int i = 0; i < 2000 && h.slots[slot].busy.load() == 0; ++i) os::sleep_ms(1);
        ASSERT_TRUE(h.dispatcher.InDispatch());
    }
    ~BusyIsr() override {
        irq.Wait();
        isr.SetDelay(0, 0);
    }
    TestIsr isr;
    std::uint32_t slot = 0;
    IrqThread irq;
};

TEST_F(BusyIsr, APauseThatMeetsAnEventSpinsTheFullTwoSecondsAndSaysSo) {
    Start(100);
    const std::uint32_t start = os::tick_ms();
    h.dispatcher.PauseISR(true);
    // The flag is looked at once: the wait runs out though the event ended long before.
    EXPECT_GE(os::tick_ms() - start, 2000u);
    EXPECT_TRUE(log.Contains("ZOR: PauseISR timed out!\n\r"));
    EXPECT_EQ(0u, irq.Wait());
    EXPECT_EQ(1u, irq.Fire(2));  // paused now
    h.dispatcher.PauseISR(false);
    EXPECT_EQ(0u, irq.Fire(3));
}

// The dispatch loop does not count its calls one by one: an unloading waits
// for the event it finds running, and gives up after its wait.
TEST_F(BusyIsr, AnUnloadingWaitsForTheEventThatMayBeInsideTheModule) {
    Start(300);
    EXPECT_FALSE(h.caller.CloseSlot(slot, 50));
    const std::uint32_t start = os::tick_ms();
    EXPECT_TRUE(h.caller.CloseSlot(slot, 2000));
    EXPECT_GE(os::tick_ms() - start, 150u);
    EXPECT_EQ(0u, irq.Wait());
}

TEST_F(BusyIsr, OnSeveralProcessorsABlockWaitsTenRoundsThenTimesOutOtherwiseNot) {
    Start(500);
    h.dispatcher.processorCount.store(0);  // no count: no wait
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 1));
    h.dispatcher.processorCount.store(2);
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 0));  // unblocking never waits
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));
    ASSERT_EQ(1u, h.slots[slot].busy.load());
    const std::uint32_t start = os::tick_ms();
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 1));
    const std::uint32_t waited = os::tick_ms() - start;
    EXPECT_GE(waited, 90u);  // ten sleeps of 10 ms; the tick may be coarse
    EXPECT_LT(waited, 450u);
    EXPECT_TRUE(log.Contains("ZOR: BlockISR timeout!\n"));
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(slot));
}

}  // namespace
}  // namespace zor::test
