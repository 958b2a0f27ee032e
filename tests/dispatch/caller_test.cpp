// The guarded timed call: slow-call lines, statistics, and a fault without
// a module.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "common/test_host.h"
#include "support/wformat.h"
#include "support/wstr.h"

namespace zor::test {
namespace {

// A slot named "isr_a" whose calls are only reported, never made; the test
// thread is the dispatch thread.
class ReportTest : public HostTest {
protected:
    ReportTest() {
        slot = h.slots.Alloc();
        wcopy(h.slots[slot].name, 20, u"isr_a");
        h.slots[slot].inUse.store(1);
        h.slots[slot].kind.store(kKindIsr);
        h.dispatcher.OnInterrupt(1);
        log.Clear();
    }
    ~ReportTest() override { h.slots.Free(slot); }
    std::uint32_t slot = 0;
};

TEST_F(ReportTest, CallsAbove2MsAreLoggedOnTheDispatchThreadAsEachCodeShowsIt) {
    h.caller.ReportCall(slot, 2.0, ZOR_FN_INTERRUPT, 0x14, 0);
    EXPECT_TRUE(log.Lines().empty());
    h.caller.ReportCall(slot, 2.01, ZOR_FN_INTERRUPT, 0x14, 0);
    std::thread other([&] { h.caller.ReportCall(slot, 50.0, ZOR_FN_INTERRUPT, 0x14, 0); });
    other.join();  // counted, never logged
    EXPECT_EQ(3u, h.slots[slot].interruptStat.Count());
    EXPECT_DOUBLE_EQ(50.0, h.slots[slot].interruptStat.Max());

    std::uint32_t block[] = {0x33, 8, 0xa, 0xb, 0xc};  // func, 8 bytes = two words, a spare word
    const auto b = reinterpret_cast<std::uintptr_t>(block);
    h.caller.ReportCall(slot, 3.0, ZOR_FN_EXEC_ISR_FUNC, b, Caller::kFlagTdl);
    block[1] = 3;  // less than a word: no argument words
    h.caller.ReportCall(slot, 3.0, ZOR_FN_EXEC_REMOTE_FUNC, b, 0);
    h.caller.ReportCall(slot, 3.0, ZOR_FN_EXEC_ISR_FUNC, 0, 0);
    h.caller.ReportCall(slot, 3.0, ZOR_FN_SHUTDOWN, 0, 0);
    h.caller.ReportCall(slot, 3.0, 21, 0x99, 0);
    h.caller.ReportCall(slot, 3.0, 22, 0x99, Caller::kFlagTdl);
    h.caller.ReportCall(slot, 3.0, 10, 0x99, 0);
    EXPECT_EQ((std::vector<std::string>{
                  "ZOR: isr_a: Interrupt(0000000000000014) used 2.01 ms\n\r",
                  "ZOR: isr_a: ExecISRFunc(Func=0x33,0xa,0xb) used 3.00 ms (TDL)\n\r",
                  "ZOR: isr_a: ExecRemoteFunc(Func=0x33) used 3.00 ms\n\r",
                  "ZOR: isr_a: ExecISRFunc() used 3.00 ms\n\r",
                  "ZOR: isr_a: Shutdown() used 3.00 ms\n\r",
                  "ZOR: isr_a: () used 3.00 ms\n\r",
                  "ZOR: isr_a used 3.00 ms (unknown func=22) (TDL)\n\r",
                  "ZOR: isr_a: ?? (10)() used 3.00 ms\n\r",
              }),
              log.LinesOf(0, 1));
    EXPECT_EQ(2u, h.slots[slot].execStat.Count());  // only Interrupt and ExecISRFunc count

    // An announced argument count is not trusted and the line keeps its end.
    log.Clear();
    std::vector<std::uint32_t> words(2 + Caller::kMaxLoggedWords, 0xFFFFFFFF);
    words[0] = 1;
    words[1] = 0xFFFFFFF0;  // claims far more words than there are
    h.caller.ReportCall(slot, 3.0, ZOR_FN_EXEC_ISR_FUNC, reinterpret_cast<std::uintptr_t>(words.data()), 0);
    const auto lines = log.LinesOf(0, 1);
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("ZOR: isr_a: ExecISRFunc(Func=0x1,0xffffffff,"));
    const std::string end = ",0xffffffff) used 3.00 ms\n\r";
    ASSERT_GE(lines[0].size(), end.size());
    EXPECT_EQ(end, lines[0].substr(lines[0].size() - end.size()));
    EXPECT_LT(lines[0].size(), Logger::kMaxLineUnits);
}

// A slot without entry: the fault returns into the host, which is named.
TEST_F(HostTest, AFaultWithoutAModuleNamesTheHost) {
    const std::uint32_t broken = h.slots.Alloc();
    wcopy(h.slots[broken].name, 20, u"broken.irq");
    EXPECT_EQ(0u, h.caller.CallModule(broken, ZOR_FN_SHUTDOWN, 0));
    char16_t self[260];
    ModuleNameOfAddress(reinterpret_cast<const void*>(&OnInterrupt), self, 260);
    EXPECT_NE(u"unknown", std::u16string(self));
    EXPECT_TRUE(log.Contains("ZOR: ISR 'broken.irq' caused exception in '" + Utf8(self) + "'!\n\r"));
}

}  // namespace
}  // namespace zor::test
