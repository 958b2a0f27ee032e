// The dispatch watchdog: a module call that overruns the budget is aborted,
// its module blocked and logged, and the other ISRs keep being called.
#include <gtest/gtest.h>

#include "common/test_host.h"
#include "support/stopwatch.h"

namespace zor::test {
namespace {

constexpr std::uint32_t kBudgetMs = 20;
// Sanitizers and Wine add to the 100 ms the next event may take.
constexpr double kSlackMs = 150;

struct Hang {
    const char* module;
    const char* function;   // as the log line names it
    std::uint32_t mode;     // hang_isr: 1 spins, 3 sleeps 1 ms at a time for ever
    std::uint32_t sequence; // the hanging event's (win32_fin_isr: bit 2 spins)
    bool exec;              // hangs in ExecISRFunc called from the dispatch thread
};

void PrintTo(const Hang& h, std::ostream* os) { *os << h.module << " " << h.function; }

std::string AbortLine(const std::u16string& file, const char* function) {
    return "ZOR: ISR '" + std::string(file.begin(), file.end()) + "' did not return from " +
           function + " within 20 ms: call aborted, ISR blocked\n\r";
}

class Watchdog : public HostTest, public ::testing::WithParamInterface<Hang> {
protected:
    void SetUp() override {
        if (!mod_.Loaded()) GTEST_SKIP() << "module not built here";
        ASSERT_TRUE(h.stats.Publish());
        healthy_ = RegisterIsr(h, "test_isr");
        slot_ = RegisterIsr(h, GetParam().module);
        ASSERT_NE(slot_, 0u);
        h.watchdog.SetBudget(kBudgetMs);
        h.watchdog.Start();
        ASSERT_EQ(0u, irq_.Fire(8));
    }
    void TearDown() override { SetMode(0); }
    void SetMode(std::uint32_t mode) const {
        if (auto set = mod_.Fn<void (*)(std::uint32_t, std::uint32_t)>("Hang_Set"))
            set(GetParam().exec ? 0 : 1, mode);
    }
    // One hanging event; its duration.
    double HangOnce(std::uint32_t sequence) {
        const Hang& p = GetParam();
        SetMode(p.mode);
        const double t0 = ClockMs();
        if (p.exec) {
            irq_.Run([&] { h.services.ExecISRFunc(slot_, 1, nullptr, 0, 0); });
        } else {
            irq_.Fire(p.sequence | sequence);
        }
        const double took = ClockMs() - t0;
        SetMode(0);
        return took;
    }
    void Unblock() { h.dispatcher.BlockISR(slot_, 0); }

    TestModule mod_{GetParam().module};
    TestIsr healthy_isr_;
    IrqThread irq_;
    std::uint32_t healthy_ = 0, slot_ = 0;
};

TEST_P(Watchdog, AbortsTheCallBlocksTheModuleAndTheOthersRunOn) {
    auto finallyRuns = mod_.Fn<std::int32_t (*)()>("finally_runs");
    const std::int32_t runsBefore = finallyRuns ? finallyRuns() : 0;
    const double took = HangOnce(16);
    EXPECT_LT(took, kBudgetMs + kSlackMs);
    EXPECT_EQ(1u, log.Count(AbortLine(ModuleFileName(GetParam().module), GetParam().function)));
    EXPECT_EQ(1, h.dispatcher.ISRBlocked(slot_));
    EXPECT_EQ(1u, h.stats.Area()->slots[slot_].aborted);
    EXPECT_EQ(1u, h.stats.Area()->slots[slot_].blocked);
    EXPECT_TRUE(h.watchdog.DispatchHealthy());

    const std::uint32_t before = healthy_isr_.CountOf(ZOR_FN_INTERRUPT);
    const double t0 = ClockMs();
    EXPECT_EQ(0u, irq_.Fire(32));
    EXPECT_LT(ClockMs() - t0, 100.0);
    EXPECT_EQ(before + 1, healthy_isr_.CountOf(ZOR_FN_INTERRUPT));

    // Unblocked, the module is called again. win32_fin_isr's __finally ran
    // in the abort, so its lock is free and the next call runs it again.
    Unblock();
    EXPECT_EQ(0u, irq_.Fire(40));
    EXPECT_EQ(0, h.dispatcher.ISRBlocked(slot_));
    if (finallyRuns) EXPECT_EQ(runsBefore + 2, finallyRuns());
}

// Memory, handles and descriptors stay flat over many aborts.
TEST_P(Watchdog, ManyAbortsLeaveNothingBehind) {
    if (GetParam().mode != 1 || GetParam().exec) GTEST_SKIP() << "one shape is enough";
    for (std::uint32_t i = 0; i < 10; ++i, Unblock()) HangOnce(64 + 8 * i);
    const std::uint64_t bytes = os::resident_bytes();
    const std::uint32_t handles = os::open_handle_count();
    for (std::uint32_t i = 0; i < 200; ++i, Unblock()) HangOnce(1024 + 8 * i);
    EXPECT_EQ(210u, h.stats.Area()->slots[slot_].aborted);
    EXPECT_LE(os::open_handle_count(), handles);
    EXPECT_LT(os::resident_bytes(), bytes + (4u << 20));
}

INSTANTIATE_TEST_SUITE_P(Hangs, Watchdog,
                         ::testing::Values(Hang{"hang_isr", "Interrupt", 1, 0, false},
                                           Hang{"hang_isr", "Interrupt", 3, 0, false},
                                           Hang{"hang_isr", "ExecISRFunc", 1, 0, true},
                                           Hang{"win32_fin_isr", "Interrupt", 0, 4, false}));

}  // namespace
}  // namespace zor::test
