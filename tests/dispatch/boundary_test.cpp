// Consecutive ISR calls of one event share their clock readings: each ISR's
// time must still cover its own whole call and nothing of its neighbours'.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dispatch/dispatch_util.h"
#include "support/stopwatch.h"
#include "support/wstr.h"

namespace zor::test {
namespace {

std::uint32_t Quick(std::uint32_t, std::uintptr_t) { return 0; }
std::uint32_t Spin(std::uint32_t, std::uintptr_t) {
    const double end = ClockMs() + 5.0;
    while (ClockMs() < end) {
    }
    return 0;
}

TEST_F(HostTest, EachIsrIsTimedOverItsOwnCallOnly) {
    const ZorGetSetProc entries[] = {Quick, Spin, Quick};  // called in slot order
    const char16_t* names[] = {u"quick_a", u"spin", u"quick_b"};
    for (int i = 0; i < 3; ++i) {
        const std::uint32_t s = h.slots.Alloc();
        wcopy(h.slots[s].name, 20, names[i]);
        h.slots[s].kind.store(kKindIsr);
        h.slots[s].entry.store(entries[i]);
        h.slots[s].inUse.store(1);
    }
    h.dispatcher.InvalidateDispatchOrder();
    for (std::uint32_t seq = 1; seq <= 2; ++seq) h.dispatcher.OnInterrupt(seq);
    EXPECT_GE(h.slots[2].interruptStat.Min(), 5.0);
    EXPECT_LT(h.slots[3].interruptStat.Max(), 2.0);
    std::vector<std::string> slowCalls;  // under load a long-event line may come too
    for (const std::string& line : log.LinesOf(0, 1)) {
        if (line.find(": Interrupt(") != std::string::npos) slowCalls.push_back(line.substr(0, line.find('(')));
    }
    EXPECT_EQ(std::vector<std::string>(2, "ZOR: spin: Interrupt"), slowCalls);
    for (std::uint32_t s = 1; s <= 3; ++s) h.slots.Free(s);
}

}  // namespace
}  // namespace zor::test
