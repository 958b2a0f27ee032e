// One event through OnInterrupt: accounting, publication of the sequence,
// pause, the order of the ISR calls, blocked slots and faulting ISRs.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "common/test_host.h"

namespace zor::test {
namespace {

// The area's sequence word is checked end to end; the ISRs' calls by OrderTest.
TEST_F(HostTest, TheFirstCallerStaysTheDispatchThreadAndAPausedEventIsNoEvent) {
    IrqThread irq, other;
    h.dispatcher.PauseISR(true);  // no event in progress: returns at once, silently
    EXPECT_EQ(1u, irq.Fire(7));
    EXPECT_FALSE(log.ContainsSubstr("PauseISR"));
    EXPECT_EQ(0u, h.dispatcher.EventCounter());
    h.dispatcher.PauseISR(false);
    EXPECT_EQ(0u, other.Fire(8));
    EXPECT_EQ(irq.ThreadId(), h.dispatcher.DispatchThreadId());
    EXPECT_FALSE(h.dispatcher.IsDispatchThread());
    EXPECT_EQ(1u, h.dispatcher.EventCounter());
    EXPECT_EQ(0u, h.dispatcher.inDispatch.load());
}

// Three ISRs sharing one order clock.
class OrderTest : public HostTest {
protected:
    OrderTest() {
        for (TestIsr* m : {&a, &b, &c}) m->SetClock(&clock);
        sa = RegisterIsr(h, "test_isr");
        sb = RegisterIsr(h, "test_isr_b");
        sc = RegisterIsr(h, "test_isr_c");
    }
    ~OrderTest() override {
        for (TestIsr* m : {&a, &b, &c}) m->Reset();
    }
    // Fires one event; the slots in the order of their Interrupt calls in it.
    std::vector<std::uint32_t> Fire() {
        irq.Fire(++seq);
        std::vector<std::pair<std::uint32_t, std::uint32_t>> seen;
        for (auto [m, slot] : {std::pair{&a, sa}, std::pair{&b, sb}, std::pair{&c, sc}})
            for (const auto& call : m->Calls())
                if (call.code == ZOR_FN_INTERRUPT && call.arg == seq) seen.emplace_back(call.stamp, slot);
        std::sort(seen.begin(), seen.end());
        std::vector<std::uint32_t> order;
        for (auto& s : seen) order.push_back(s.second);
        return order;
    }
    void SetPriorities(std::uint32_t pa, std::uint32_t pb, std::uint32_t pc) {
        h.slots[sa].priority.store(pa);
        h.slots[sb].priority.store(pb);
        h.slots[sc].priority.store(pc);
        h.dispatcher.InvalidateDispatchOrder();
    }
    using Order = std::vector<std::uint32_t>;

    std::uint32_t clock = 0;
    TestIsr a{"test_isr"}, b{"test_isr_b"}, c{"test_isr_c"};
    std::uint32_t sa = 0, sb = 0, sc = 0;
    std::uint32_t seq = 100;
    IrqThread irq;
};

TEST_F(OrderTest, LowerPrioritiesRunFirstEqualOnesInSlotOrderAndOnlyIsrsRun) {
    ASSERT_EQ((Order{1, 2, 3}), (Order{sa, sb, sc}));
    EXPECT_EQ((Order{sa, sb, sc}), Fire());
    SetPriorities(0xFFFFFFFF, 1, 0);
    EXPECT_EQ((Order{sc, sb, sa}), Fire());
    SetPriorities(5, 5, 5);
    EXPECT_EQ((Order{sa, sb, sc}), Fire());
    h.slots[sb].kind.store(kKindIrq);  // the driver is never dispatched
    h.dispatcher.InvalidateDispatchOrder();
    EXPECT_EQ((Order{sa, sc}), Fire());
    EXPECT_EQ(2u, h.dispatcher.DispatchCount());
    h.slots[sb].kind.store(kKindIsr);
}

TEST_F(OrderTest, SetISRPrioTakesEffectFromTheNextEvent) {
    b.CallServiceOn(ZOR_FN_INTERRUPT, SERV_SetISRPrio, {0, 0}, 1);  // b moves itself ahead
    EXPECT_EQ((Order{sa, sb, sc}), Fire());  // not within the same event
    EXPECT_EQ(0, b.ServiceResult());
    EXPECT_EQ((Order{sb, sa, sc}), Fire());
    EXPECT_EQ(1, h.services.Call(SERV_SetISRPrio, 99, 0, 0, 0, 0, 0, nullptr));
    EXPECT_TRUE(log.Contains("ZOR: SERV_SetISRPrio: invalid DLL handle! (99)\n\r"));
}

TEST_F(OrderTest, BlockedIsrsAreSkippedWithoutTouchingTheirStatistics) {
    Fire();
    const std::uint64_t counted = h.slots[sb].interruptStat.Count();
    h.dispatcher.BlockISR(sb, 1);
    EXPECT_EQ((Order{sa, sc}), Fire());
    EXPECT_EQ(counted, h.slots[sb].interruptStat.Count());
    EXPECT_EQ(0u, h.slots[sb].busy.load());
    h.dispatcher.BlockISR(sb, 0);
    EXPECT_EQ((Order{sa, sb, sc}), Fire());
    // An ISR may block itself or a later one within the same event, without waiting.
    h.dispatcher.processorCount.store(2);
    a.CallServiceOn(ZOR_FN_INTERRUPT, SERV_BlockISR, {sc, 1});
    b.CallServiceOn(ZOR_FN_INTERRUPT, SERV_BlockISR, {0, 1}, 1);
    EXPECT_EQ((Order{sa, sb}), Fire());
    EXPECT_EQ(0, b.ServiceResult());
    EXPECT_EQ((Order{sa}), Fire());
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(sc));
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));
    EXPECT_EQ(0, b.CallService(SERV_IsISRThread));  // the test thread is not the dispatch thread
}

TEST_F(HostTest, AFaultingIsrIsReportedEveryEventAndCalledAgainWhileTheOthersRun) {
    TestIsr faulting("test_isr"), isr("test_isr_b");
    const std::uint32_t sf = RegisterIsr(h, "test_isr");
    RegisterIsr(h, "test_isr_b");
    faulting.SetFault(ZOR_FN_INTERRUPT);
    IrqThread irq;
    for (std::uint32_t seq = 1; seq <= 3; ++seq) EXPECT_EQ(0u, irq.Fire(seq));
    const std::string file = Utf8(ModuleFileName("test_isr"));
    EXPECT_EQ(3u, log.Count("ZOR: ISR '" + file + "' caused exception in '" + file + "'!\n\r"));
    EXPECT_EQ(3u, faulting.CountOf(ZOR_FN_INTERRUPT));
    EXPECT_EQ(3u, isr.CountOf(ZOR_FN_INTERRUPT));
    EXPECT_EQ(0u, h.slots[sf].busy.load() + h.slots[sf].blocked.load());
    EXPECT_EQ(3u, h.dispatcher.EventCounter());
    faulting.SetFault(0);
}

}  // namespace
}  // namespace zor::test
