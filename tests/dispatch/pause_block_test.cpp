// Pausing the dispatch around registry changes, and blocking single ISRs.
#include <gtest/gtest.h>

#include <string>

#include "common/test_host.h"

namespace zor {
namespace {

using test::CountingIsr;
using test::HostTest;
using test::IrqThread;
using test::RegisterIsr;

// Waits (bounded) until the dispatch thread is inside an event.
bool AwaitInDispatch(Host& h) {
    for (int i = 0; i < 2000; ++i) {
        if (h.dispatcher.inDispatch.load() == 1) return true;
        os::sleep_ms(1);
    }
    return false;
}

TEST_F(HostTest, APauseThatMeetsAnEventSpinsTheFullTwoSecondsAndSaysSo) {
    CountingIsr isr;
    RegisterIsr(h, "counting_isr");
    isr.SetInterruptSleepMs(100);
    IrqThread irq;
    irq.FireAsync(1);
    ASSERT_TRUE(AwaitInDispatch(h));
    const std::uint32_t start = os::tick_ms();
    h.dispatcher.PauseISR(true);
    // The flag is looked at once: the wait runs out even though the event
    // ended long before.
    EXPECT_GE(os::tick_ms() - start, 2000u);
    EXPECT_TRUE(log.Contains("ZOR: PauseISR timed out!\n\r"));
    EXPECT_EQ(0u, irq.Wait());
    EXPECT_EQ(1u, irq.Fire(2));  // paused now
    h.dispatcher.PauseISR(false);
    EXPECT_EQ(0u, irq.Fire(3));
    isr.SetInterruptSleepMs(0);
}

TEST_F(HostTest, BlockAndBlockedRefuseInvalidHandles) {
    CountingIsr isr;
    const std::uint32_t slot = RegisterIsr(h, "counting_isr");
    for (std::uint32_t handle : {0u, 100u, slot + 1}) {
        log.Clear();
        EXPECT_EQ(0u, h.dispatcher.BlockISR(handle, 1));
        EXPECT_EQ(0, h.dispatcher.ISRBlocked(handle));
        EXPECT_EQ((std::vector<std::string>{
                      "ZOR: SERV_BlockISR: invalid DLL handle! (" + std::to_string(handle) + ")\n\r",
                      "ZOR: SERV_ISRBlocked: invalid DLL handle! (" + std::to_string(handle) + ")\n\r"}),
                  log.LinesOf(2, 1));
    }
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 7));
    EXPECT_EQ(7, h.dispatcher.ISRBlocked(slot));
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 0));
    EXPECT_EQ(0, h.dispatcher.ISRBlocked(slot));
}

// An ISR sitting in a long Interrupt while another thread blocks it.
class BlockWhileBusy : public HostTest {
protected:
    BlockWhileBusy() {
        slot = RegisterIsr(h, "counting_isr");
        isr.SetInterruptSleepMs(500);
        irq.FireAsync(1);
        AwaitInDispatch(h);
        for (int i = 0; i < 2000 && h.slots[slot].busy.load() == 0; ++i) os::sleep_ms(1);
    }
    ~BlockWhileBusy() override {
        irq.Wait();
        isr.SetInterruptSleepMs(0);
    }
    CountingIsr isr;
    std::uint32_t slot = 0;
    IrqThread irq;
};

TEST_F(BlockWhileBusy, OnSeveralProcessorsTheBlockWaitsTenRoundsThenTimesOut) {
    h.dispatcher.processorCount.store(2);
    ASSERT_EQ(1u, h.slots[slot].busy.load());
    const std::uint32_t start = os::tick_ms();
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 1));
    const std::uint32_t waited = os::tick_ms() - start;
    EXPECT_GE(waited, 90u);  // ten sleeps of 10 ms; the tick may be coarse
    EXPECT_LT(waited, 450u);
    EXPECT_TRUE(log.Contains("ZOR: BlockISR timeout!\n"));
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(slot));
}

TEST_F(BlockWhileBusy, WithoutAProcessorCountOrToUnblockThereIsNoWait) {
    h.dispatcher.processorCount.store(0);
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 1));
    h.dispatcher.processorCount.store(2);
    EXPECT_EQ(0u, h.dispatcher.BlockISR(slot, 0));
    EXPECT_EQ(1u, h.slots[slot].busy.load());  // still inside the 500 ms call
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));
}

TEST_F(BlockWhileBusy, TheDispatchThreadNeverWaits) {
    h.dispatcher.processorCount.store(2);
    irq.Wait();
    // Same ISR busy again, blocked from the dispatch thread itself.
    isr.CallServiceOn(ZOR_FN_INTERRUPT, SERV_BlockISR, 0, 1, 0, true);
    isr.SetInterruptSleepMs(0);
    irq.Fire(2);
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(slot));
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));
}

}  // namespace
}  // namespace zor
