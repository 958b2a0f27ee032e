// One event through OnInterrupt: accounting, publication of the sequence,
// pause, the order of the ISR calls, blocked slots and faulting ISRs. Most
// cases run the per-event path alone (dispatch_rig.h); the ones that need an
// ISR calling back into the host run a whole host.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "common/test_host.h"
#include "dispatch/dispatch_rig.h"
#include "zor/zor_module.h"

namespace zor::test {
namespace {

using Calls = std::vector<int>;

TEST(DispatchPath, TheFirstCallerStaysTheDispatchThreadAndAPausedEventIsNoEvent) {
    DispatchRig r;
    r.Add(FakeIsr<1>);
    r.dispatcher.PauseISR(true);  // no event in progress: returns at once, silently
    std::uint32_t first = 0, firstId = 0;
    std::thread([&] { first = r.dispatcher.OnInterrupt(7); firstId = os::current_thread_id(); }).join();
    EXPECT_EQ(1u, first);
    EXPECT_TRUE(FakeCalls().empty());
    EXPECT_FALSE(r.testLog.ContainsSubstr("PauseISR"));
    EXPECT_EQ(0u, r.dispatcher.EventCounter());
    r.dispatcher.PauseISR(false);
    EXPECT_EQ((Calls{1}), r.Fire(8));  // another thread: still not the dispatch thread
    EXPECT_EQ(firstId, r.dispatcher.DispatchThreadId());
    EXPECT_FALSE(r.dispatcher.IsDispatchThread());
    EXPECT_EQ(1u, r.dispatcher.EventCounter());
    EXPECT_FALSE(r.dispatcher.InDispatch());
}

TEST(DispatchPath, LowerPrioritiesRunFirstEqualOnesInSlotOrderAndOnlyIsrsRun) {
    DispatchRig r;
    const std::uint32_t a = r.Add(FakeIsr<1>), b = r.Add(FakeIsr<2>), c = r.Add(FakeIsr<3>);
    EXPECT_EQ((Calls{1, 2, 3}), r.Fire(1));
    r.SetPriority(a, 0xFFFFFFFF);
    r.SetPriority(c, 0);
    EXPECT_EQ((Calls{3, 2, 1}), r.Fire(2));
    for (std::uint32_t s : {a, b, c}) r.SetPriority(s, 5);
    EXPECT_EQ((Calls{1, 2, 3}), r.Fire(3));
    r.slots[b].kind.store(kKindIrq);  // the driver is never dispatched
    r.dispatcher.InvalidateDispatchOrder();
    EXPECT_EQ((Calls{1, 3}), r.Fire(4));
    EXPECT_EQ(2u, r.dispatcher.DispatchCount());
    r.slots[b].entry.store(nullptr);  // nor is a slot without an entry
    r.slots[b].kind.store(kKindIsr);
    r.dispatcher.InvalidateDispatchOrder();
    EXPECT_EQ((Calls{1, 3}), r.Fire(5));
}

TEST(DispatchPath, BlockedIsrsAreSkippedWithoutTouchingTheirStatistics) {
    DispatchRig r;
    r.Add(FakeIsr<1>);
    const std::uint32_t b = r.Add(FakeIsr<2>);
    r.Fire(1);
    const std::uint64_t counted = r.slots[b].interruptStat.Count();
    EXPECT_EQ(0u, r.dispatcher.BlockISR(b, 1));
    EXPECT_EQ(1, r.dispatcher.ISRBlocked(b));
    EXPECT_EQ((Calls{1}), r.Fire(2));
    EXPECT_EQ(counted, r.slots[b].interruptStat.Count());
    EXPECT_EQ(0u, r.slots[b].busy.load());
    r.dispatcher.BlockISR(b, 0);
    EXPECT_EQ((Calls{1, 2}), r.Fire(3));
}

TEST(DispatchPath, AFaultingIsrIsReportedEveryEventAndCalledAgainWhileTheOthersRun) {
    DispatchRig r;
    const std::uint32_t f = r.Add(FakeIsr<1>, u"faulting");
    r.Add(FakeIsr<2>, u"healthy");
    FakeFaulting().store(1);
    std::thread([&] {
        for (std::uint32_t seq = 1; seq <= 3; ++seq) EXPECT_EQ((Calls{1, 2}), r.Fire(seq));
    }).join();
    EXPECT_EQ(3u, r.testLog.Count("ZOR: ISR 'faulting' caused exception in '" +
                                  Utf8(std::u16string(r.caller.FaultModuleName())) + "'!\n\r"));
    EXPECT_EQ(0u, r.slots[f].busy.load() + r.slots[f].blocked.load());
    EXPECT_EQ(3u, r.dispatcher.EventCounter());
}

// Three registered ISRs sharing one order clock: an ISR that calls back
// into the host from inside the event.
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
    using Order = std::vector<std::uint32_t>;

    std::uint32_t clock = 0;
    TestIsr a{"test_isr"}, b{"test_isr_b"}, c{"test_isr_c"};
    std::uint32_t sa = 0, sb = 0, sc = 0;
    std::uint32_t seq = 100;
    IrqThread irq;
};

TEST_F(OrderTest, SetISRPrioTakesEffectFromTheNextEvent) {
    b.CallServiceOn(ZOR_FN_INTERRUPT, SERV_SetISRPrio, {0, 0}, 1);  // b moves itself ahead
    EXPECT_EQ((Order{sa, sb, sc}), Fire());  // not within the same event
    EXPECT_EQ(0, b.ServiceResult());
    EXPECT_EQ((Order{sb, sa, sc}), Fire());
    EXPECT_EQ(1, h.services.Call(SERV_SetISRPrio, 99, 0, 0, 0, 0, 0, nullptr));
    EXPECT_TRUE(log.Contains("ZOR: SERV_SetISRPrio: invalid DLL handle! (99)\n\r"));
}

TEST_F(OrderTest, AnIsrMayBlockItselfOrALaterOneWithinTheSameEventWithoutWaiting) {
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

}  // namespace
}  // namespace zor::test
