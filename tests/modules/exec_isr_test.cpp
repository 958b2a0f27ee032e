// ExecISRFunc: called at once on the dispatch thread, queued in the
// deferred list from any other thread, with and without waiting for the
// target's result.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "common/test_host.h"
#include "modules/tdl_writer.h"

namespace zor::test {
namespace {

class ExecTest : public HostTest {
protected:
    void SetUp() override {
        a.Fn<void (*)()>("Test_Reset")();
        b.Fn<void (*)()>("Test_Reset")();
        RegisterIsr(h, "service_isr");
        sb = RegisterIsr(h, "service_isr_b");
        ASSERT_NE(sb, 0u);
    }
    void MakeArea(std::uint32_t queueBytes) {
        ASSERT_NE(h.shm.SysMem(os::current_process_id(), ZOR_SSA_QUEUE + queueBytes), 0u);
    }
    std::uint32_t Word(std::uint32_t offset) { return TdlWord(h.shm.Area(), offset).load(); }
    bool NoSlotKept() {
        for (std::uint32_t k = 1; k < ZOR_SSA_RESULT_SLOTS; ++k)
            if (h.shm.Area()[ZOR_SSA_RESULT_FLAGS + k] != 0) return false;
        return true;
    }
    std::int32_t Exec(std::uint32_t func, const void* data, std::uint32_t size, std::uint32_t wait) {
        return h.services.ExecISRFunc(sb, func, data, size, wait);
    }
    std::uint32_t B(const char* fn) { return b.Fn<std::uint32_t (*)()>(fn)(); }
    std::string Refusal(const char* what) { return "ZOR: ExecISRFunc ISR#" + std::to_string(sb) + ": " + what + "!\n\r"; }
    // A refusal after the two-second wait for room or the lock.
    void ExpectTimeout(std::uint32_t size) {
        std::vector<unsigned char> data(size, 1);
        const std::uint32_t t0 = os::tick_ms();
        EXPECT_EQ(Exec(2, data.data(), size, 1), 0);
        EXPECT_GE(os::tick_ms() - t0, 1990u);
        EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc timeout!\n\r"));
    }

    TestModule a{"service_isr"}, b{"service_isr_b"};
    std::uint32_t sb = 0;
    IrqThread irq;
};

TEST_F(ExecTest, OnTheDispatchThreadTheTargetIsCalledAtOnceUpTo1192Bytes) {
    auto setAction = a.Fn<void (*)(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                   const void*, std::uint32_t)>("Test_SetAction");
    auto result = a.Fn<std::int64_t (*)()>("Test_ActionResult");
    constexpr std::uint32_t kActExec = 4;
    std::vector<unsigned char> data(1193);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 13 + 1);
    setAction(kActExec, sb, 0x42, 1192, data.data(), 1193);
    irq.Fire(1);
    EXPECT_EQ(result(), 1);  // called, its own result not passed back
    ASSERT_EQ(B("Test_Execs"), 1u);  // within the same event, no area needed
    EXPECT_EQ(B("Test_LastFunc"), 0x42u);
    EXPECT_EQ(B("Test_LastSize"), 1192u);
    EXPECT_EQ(std::memcmp(b.Fn<const unsigned char* (*)()>("Test_LastData")(), data.data(), 1192), 0);
    EXPECT_EQ(B("Test_LastOnIsrThread"), 1u);
    setAction(kActExec, sb, 0x43, 1193, nullptr, 0);
    irq.Fire(2);
    EXPECT_EQ(result(), 0);
    EXPECT_EQ(B("Test_Execs"), 1u);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc (within ISR!) ISR#" + std::to_string(sb) + ": Argument too large!\n\r"));
    log.Clear();
    setAction(kActExec, 77, 0x44, 4, nullptr, 0);  // no such module: refused silently
    irq.Fire(3);
    EXPECT_EQ(result(), 0);
    EXPECT_EQ(log.LinesOf(2, 0), std::vector<std::string>{});
}

TEST_F(ExecTest, QueuedRequestsRunAtTheNextEventUpToTheQueueCapacity) {
    const unsigned char d[4] = {9, 8};
    EXPECT_EQ(Exec(1, d, 4, 1), 0);
    EXPECT_TRUE(log.Contains(Refusal("no system shared memory to queue into")));
    MakeArea(100);
    EXPECT_EQ(Exec(1, reinterpret_cast<const void*>(std::uintptr_t{64}), 4, 1), 0);
    EXPECT_TRUE(log.Contains(Refusal("argument not readable")));
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    EXPECT_TRUE(NoSlotKept());
    std::vector<unsigned char> data(100, 3);
    EXPECT_EQ(Exec(1, data.data(), 77, 0), 0);
    EXPECT_TRUE(log.Contains(Refusal("Argument too large")));
    EXPECT_EQ(Exec(1, data.data(), 76, 0), 1);  // 24 + 76 = capacity, queue empty
    EXPECT_EQ(B("Test_Execs"), 0u);
    irq.Fire(1);
    EXPECT_EQ(B("Test_Execs"), 1u);
    EXPECT_EQ(B("Test_LastContext"), os::current_process_id());
    EXPECT_EQ(B("Test_LastOnIsrThread"), 1u);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
}

TEST_F(ExecTest, ManyThreadsQueueWithAndWithoutWaitingAndEachGetsItsOwnResult) {
    MakeArea(64 * 1024);
    constexpr std::uint32_t kThreads = 4, kEach = 150;
    std::atomic<std::uint32_t> wrong{0};
    std::atomic<bool> stop{false};
    std::thread pump([&] {  // the dispatch thread
        for (std::uint32_t seq = 1; !stop.load(); ++seq) {
            OnInterrupt(seq);
            os::sleep_ms(1);
        }
    });
    std::vector<std::thread> threads;
    for (std::uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (std::uint32_t i = 0; i < kEach; ++i) {
                const std::uint32_t func = 1000 * (t + 1) + i;
                const auto byte = static_cast<std::uint8_t>(i * 3 + t);
                const std::int32_t r = Exec(func, &byte, 1, i % 2);
                // The target answers func * 7 + size + first byte.
                if (r != (i % 2 ? static_cast<std::int32_t>(func * 7 + 1 + byte) : 1)) ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int i = 0; i < 1000 && B("Test_Execs") < kThreads * kEach; ++i) os::sleep_ms(1);
    stop = true;
    pump.join();
    EXPECT_EQ(wrong.load(), 0u);
    EXPECT_EQ(B("Test_Execs"), kThreads * kEach);
    std::uint64_t sum = 0;
    for (std::uint32_t t = 0; t < kThreads; ++t)
        for (std::uint32_t i = 0; i < kEach; ++i) sum += 1000 * (t + 1) + i;
    EXPECT_EQ(b.Fn<std::uint64_t (*)()>("Test_FuncSum")(), sum);
    EXPECT_TRUE(NoSlotKept());  // every slot given back
}

TEST_F(ExecTest, AFullQueueOrHeldSyncTdlIsRefusedAfterTwoSecondsEvenIfItDrainsMeanwhile) {
    MakeArea(100);
    std::vector<unsigned char> data(60, 1);
    ASSERT_EQ(Exec(1, data.data(), 60, 0), 1);
    std::thread drain([&] {
        os::sleep_ms(200);
        irq.Fire(1);
    });
    ExpectTimeout(40);
    drain.join();
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);  // the refused one was never queued
    TdlWord(h.shm.Area(), ZOR_SSA_SYNC_TDL).store(1);
    ExpectTimeout(1);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    EXPECT_TRUE(NoSlotKept());
}

TEST_F(ExecTest, The1024thWaitingRequestOverflowsTheSlotsButStillRuns) {
    MakeArea(1100 * 24);
    // 1023 requests wait for their results, queued as another process would.
    for (std::uint32_t k = 1; k < ZOR_SSA_RESULT_SLOTS; ++k) {
        TdlTicket t;
        ASSERT_EQ(TdlAppend(h.shm.Area(), h.shm.AreaSize(), 1, sb, k, nullptr, 0, true, &t, 100),
                  TdlStatus::kQueued);
    }
    std::atomic<std::int32_t> r{-1};
    std::thread waiter([&] { r = Exec(5000, nullptr, 0, 1); });
    for (int i = 0; i < 2000 && Word(ZOR_SSA_ENTRY_COUNT) < 1024; ++i) os::sleep_ms(1);
    EXPECT_TRUE(log.Contains("ZOR: async result list overflow!!!\n\r"));
    irq.Fire(1);
    waiter.join();
    EXPECT_EQ(r.load(), 0);  // its result was not kept ...
    EXPECT_EQ(B("Test_Execs"), 1024u);  // ... but it ran
    EXPECT_EQ(B("Test_LastFunc"), 5000u);
}

}  // namespace
}  // namespace zor::test
