// One event through OnInterrupt: accounting, publication of the sequence,
// pause, the order of the ISR calls, blocked slots and faulting ISRs.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/test_host.h"

namespace zor {
namespace {

using test::CountingIsr;
using test::HostTest;
using test::IrqThread;
using test::ModuleFileName;
using test::RegisterIsr;
using test::TestModule;

std::string Utf8(const std::u16string& s) { return std::string(s.begin(), s.end()); }

TEST_F(HostTest, AnEventWithoutISRsStillAccountsAndPublishesItsSequence) {
    ASSERT_NE(0u, h.shm.SysMem(os::current_process_id(), 8192));
    IrqThread irq;
    EXPECT_EQ(0u, irq.Fire(41));
    EXPECT_EQ(41u, *reinterpret_cast<const std::uint32_t*>(h.shm.Area()));
    EXPECT_EQ(1u, h.dispatcher.EventCounter());
    EXPECT_EQ(0u, h.dispatcher.inDispatch.load());
    // The first caller is the dispatch thread; nobody else is.
    EXPECT_EQ(irq.ThreadId(), h.dispatcher.DispatchThreadId());
    EXPECT_FALSE(h.dispatcher.IsDispatchThread());
    bool onIrq = false;
    irq.Run([&] { onIrq = h.dispatcher.IsDispatchThread(); });
    EXPECT_TRUE(onIrq);
    // A later thread does not take over.
    IrqThread other;
    other.Fire(42);
    EXPECT_EQ(irq.ThreadId(), h.dispatcher.DispatchThreadId());
}

TEST_F(HostTest, APausedEventIsOnlyCountedAsAWakeUpAndPublished) {
    ASSERT_NE(0u, h.shm.SysMem(os::current_process_id(), 8192));
    CountingIsr isr;
    RegisterIsr(h, "counting_isr");
    isr.Reset();
    IrqThread irq;
    h.dispatcher.PauseISR(true);  // no event in progress: returns at once, silently
    EXPECT_FALSE(log.ContainsSubstr("PauseISR"));
    EXPECT_EQ(1u, irq.Fire(7));
    EXPECT_EQ(7u, *reinterpret_cast<const std::uint32_t*>(h.shm.Area()));
    EXPECT_EQ(0u, isr.Count());
    EXPECT_EQ(0u, h.dispatcher.EventCounter());
    EXPECT_EQ(irq.ThreadId(), h.dispatcher.DispatchThreadId());

    h.dispatcher.PauseISR(false);
    EXPECT_EQ(0u, irq.Fire(8));
    ASSERT_EQ(1u, isr.Count());
    EXPECT_EQ(ZOR_FN_INTERRUPT, isr.Calls()[0].code);
    EXPECT_EQ(8u, isr.Calls()[0].arg);
    EXPECT_EQ(irq.ThreadId(), isr.Calls()[0].thread);
}

// Three ISRs sharing one order clock.
class OrderTest : public HostTest {
protected:
    OrderTest() {
        for (CountingIsr* m : {&a, &b, &c}) m->SetClock(&clock);
        sa = RegisterIsr(h, "counting_isr");
        sb = RegisterIsr(h, "counting_isr_b");
        sc = RegisterIsr(h, "counting_isr_c");
    }
    ~OrderTest() override {
        for (CountingIsr* m : {&a, &b, &c}) m->Reset();
    }
    // Slots in the order of their Interrupt calls in the last event.
    std::vector<std::uint32_t> LastEventOrder() {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> seen;
        for (auto [m, slot] : {std::pair{&a, sa}, std::pair{&b, sb}, std::pair{&c, sc}}) {
            const auto calls = m->Calls();
            for (auto it = calls.rbegin(); it != calls.rend(); ++it) {
                if (it->code == ZOR_FN_INTERRUPT && it->arg == lastSequence) {
                    seen.emplace_back(it->stamp, slot);
                    break;
                }
            }
        }
        std::sort(seen.begin(), seen.end());
        std::vector<std::uint32_t> order;
        for (auto& s : seen) order.push_back(s.second);
        return order;
    }
    void Fire() { irq.Fire(++lastSequence); }
    void SetPriority(std::uint32_t slot, std::uint32_t prio) {
        h.slots[slot].priority.store(prio);
        h.dispatcher.InvalidateDispatchOrder();
    }

    std::uint32_t clock = 0;
    CountingIsr a{"counting_isr"}, b{"counting_isr_b"}, c{"counting_isr_c"};
    std::uint32_t sa = 0, sb = 0, sc = 0;
    std::uint32_t lastSequence = 100;
    IrqThread irq;
};

TEST_F(OrderTest, LowerPrioritiesRunFirstAndEqualOnesInSlotOrder) {
    ASSERT_EQ((std::vector<std::uint32_t>{1, 2, 3}), (std::vector<std::uint32_t>{sa, sb, sc}));
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sa, sb, sc}), LastEventOrder());

    SetPriority(sa, 0xFFFFFFFF);
    SetPriority(sc, 0);
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sc, sb, sa}), LastEventOrder());
    EXPECT_EQ(3u, h.dispatcher.DispatchCount());

    SetPriority(sa, 5);
    SetPriority(sb, 5);
    SetPriority(sc, 5);
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sa, sb, sc}), LastEventOrder());
}

TEST_F(OrderTest, TheDriverAndSlotsWithoutEntryAreNeverDispatched) {
    h.slots[sb].kind.store(kKindIrq);
    h.dispatcher.InvalidateDispatchOrder();
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sa, sc}), LastEventOrder());
    EXPECT_EQ(2u, h.dispatcher.DispatchCount());
    h.slots[sb].kind.store(kKindIsr);
}

TEST_F(OrderTest, ABlockedISRIsSkippedWithoutTouchingItsStatistics) {
    Fire();
    const std::uint64_t counted = h.slots[sb].interruptStat.Count();
    h.dispatcher.BlockISR(sb, 1);
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sa, sc}), LastEventOrder());
    EXPECT_EQ(counted, h.slots[sb].interruptStat.Count());
    EXPECT_EQ(0u, h.slots[sb].busy.load());
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(sb));
    h.dispatcher.BlockISR(sb, 0);
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sa, sb, sc}), LastEventOrder());
}

TEST_F(OrderTest, AnISRMayBlockALaterOneWithinTheSameEvent) {
    h.dispatcher.processorCount.store(2);  // the wait would apply outside the dispatch thread
    a.CallServiceOn(ZOR_FN_INTERRUPT, SERV_BlockISR, sc, 1);
    Fire();
    EXPECT_EQ((std::vector<std::uint32_t>{sa, sb}), LastEventOrder());
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(sc));
    EXPECT_FALSE(log.ContainsSubstr("BlockISR timeout"));
}

TEST_F(HostTest, AFaultingISRIsReportedEveryEventAndTheOthersStillRun) {
    TestModule faulting("faulting_isr");
    auto faultIn = faulting.Fn<void (*)(std::uint32_t)>("FaultingIsr_FaultIn");
    auto calls = faulting.Fn<std::uint32_t (*)()>("FaultingIsr_Calls");
    faultIn(ZOR_FN_INTERRUPT);
    CountingIsr isr;
    const std::uint32_t sf = RegisterIsr(h, "faulting_isr");
    RegisterIsr(h, "counting_isr");
    ASSERT_EQ(1u, sf);
    isr.Reset();
    const std::uint32_t before = calls();

    IrqThread irq;
    for (std::uint32_t seq = 1; seq <= 3; ++seq) EXPECT_EQ(0u, irq.Fire(seq));
    const std::string file = Utf8(ModuleFileName("faulting_isr"));
    EXPECT_EQ(3u, log.Count("ZOR: ISR '" + file + "' caused exception in '" + file + "'!\n\r"));
    EXPECT_EQ(before + 3, calls());
    EXPECT_EQ(3u, isr.CountOf(ZOR_FN_INTERRUPT));
    EXPECT_EQ(0u, h.slots[sf].busy.load());
    EXPECT_EQ(0u, h.slots[sf].blocked.load());
    EXPECT_EQ(1u, h.slots[sf].inUse.load());
    EXPECT_EQ(3u, h.dispatcher.EventCounter());
    faultIn(0);
}

}  // namespace
}  // namespace zor
