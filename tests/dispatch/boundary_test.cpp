// Consecutive ISR calls of one event share their clock readings: each ISR's
// time must still cover its own whole call and nothing of its neighbours'.
#include <gtest/gtest.h>

#include <string>

#include "common/test_host.h"
#include "support/stopwatch.h"

namespace zor::test {
namespace {

template <int kMs>
std::uint32_t Spin(std::uint32_t, std::uintptr_t) {
    const double end = ClockMs() + kMs;
    while (ClockMs() < end) {
    }
    return 0;
}

TEST_F(HostTest, EachIsrIsTimedOverItsOwnCallOnly) {
    // Called in slot order: a slow call (logged), a fast one, an empty one.
    const ZorGetSetProc entries[] = {Spin<5>, Spin<1>, Spin<0>};
    const char16_t* names[] = {u"spin5", u"spin1", u"quick"};
    for (int i = 0; i < 3; ++i) AddFakeIsr(h, entries[i], names[i]);
    // The first event's statistics go into the first table and are reset.
    for (std::uint32_t seq = 1; seq <= 4; ++seq) h.dispatcher.OnInterrupt(seq);
    EXPECT_GE(h.slots[1].interruptStat.Min(), 5.0);
    EXPECT_GE(h.slots[2].interruptStat.Min(), 1.0);
    EXPECT_LT(h.slots[2].interruptStat.Min(), 5.0);
    EXPECT_LT(h.slots[3].interruptStat.Min(), 1.0);
    std::size_t slowLines = 0;  // under load other lines may come too
    for (const std::string& line : log.LinesOf(0, 1)) slowLines += line.rfind("ZOR: spin5: Interrupt(", 0) == 0;
    EXPECT_EQ(4u, slowLines);
    for (std::uint32_t s = 1; s <= 3; ++s) h.slots.Free(s);
}

}  // namespace
}  // namespace zor::test
