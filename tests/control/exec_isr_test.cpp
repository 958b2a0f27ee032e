// ExecISRFunc: called at once on the dispatch thread, queued in the
// deferred list from any other thread, with and without waiting for the
// target's result.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "common/test_host.h"
#include "modules/deferred_list_writer.h"

namespace zor::test {
namespace {

class ExecTest : public HostTest {
protected:
    void SetUp() override {
        RegisterIsr(h, "test_isr");
        sb = RegisterIsr(h, "test_isr_b");
        ASSERT_NE(sb, 0u);
    }
    void MakeArea(std::uint32_t queueBytes) {
        ASSERT_NE(h.shm.SysMem(zor::os::process_peer(), os::current_process_id(), ZOR_SSA_QUEUE + queueBytes), 0u);
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
    // The ExecISRFunc calls b received.
    std::vector<TestIsr::Call> Execs() {
        std::vector<TestIsr::Call> out;
        for (const auto& c : b.Calls())
            if (c.code == ZOR_FN_EXEC_ISR_FUNC) out.push_back(c);
        return out;
    }
    std::string Refusal(const char* what) { return "ZOR: ExecISRFunc ISR#" + std::to_string(sb) + ": " + what + "!\n\r"; }
    TestIsr a{"test_isr"}, b{"test_isr_b"};
    std::uint32_t sb = 0;
    IrqThread irq;
};

TEST_F(ExecTest, OnTheDispatchThreadTheTargetIsCalledAtOnceUpTo1192Bytes) {
    std::vector<unsigned char> data(1193);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 13 + 1);
    const auto d = reinterpret_cast<std::uintptr_t>(data.data());
    a.CallServiceOn(ZOR_FN_INTERRUPT, SERV_ExecISRFunc, {sb, 0x42, d, 1192, 1});  // asks to wait: must not
    irq.Fire(1);
    EXPECT_EQ(a.ServiceResult(), 1);  // called, its own result not passed back
    ASSERT_EQ(Execs().size(), 1u);    // within the same event, no area needed
    EXPECT_EQ(Execs()[0].first, 0x42u);
    EXPECT_EQ(std::memcmp(b.LastData(), data.data(), 1192), 0);
    EXPECT_EQ(Execs()[0].onIsrThread, 1u);
    a.CallServiceOn(ZOR_FN_INTERRUPT, SERV_ExecISRFunc, {sb, 0x43, d, 1193, 1});
    irq.Fire(2);
    EXPECT_EQ(a.ServiceResult(), 0);
    EXPECT_EQ(Execs().size(), 1u);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc (within ISR!) ISR#" + std::to_string(sb) + ": Argument too large!\n\r"));
    log.Clear();
    a.CallServiceOn(ZOR_FN_INTERRUPT, SERV_ExecISRFunc, {77, 0x44, d, 4, 1});  // no such module: refused silently
    irq.Fire(3);
    EXPECT_EQ(a.ServiceResult(), 0);
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
    EXPECT_EQ(Execs().size(), 0u);
    irq.Fire(1);
    ASSERT_EQ(Execs().size(), 1u);
    EXPECT_EQ(Execs()[0].context, os::current_process_id());
    EXPECT_EQ(Execs()[0].onIsrThread, 1u);
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
    for (int i = 0; i < 1000 && Execs().size() < kThreads * kEach; ++i) os::sleep_ms(1);
    stop = true;
    pump.join();
    EXPECT_EQ(wrong.load(), 0u);
    EXPECT_EQ(Execs().size(), kThreads * kEach);
    EXPECT_TRUE(NoSlotKept());  // every slot given back
}

// The wait for room is two seconds, even if the queue drains meanwhile.
TEST_F(ExecTest, AFullQueueIsRefusedAfterTwoSecondsEvenIfItDrainsMeanwhile) {
    MakeArea(100);
    std::vector<unsigned char> data(60, 1);
    ASSERT_EQ(Exec(1, data.data(), 60, 0), 1);
    std::thread drain([&] {
        os::sleep_ms(200);
        irq.Fire(1);
    });
    const std::uint32_t t0 = os::tick_ms();
    EXPECT_EQ(Exec(2, data.data(), 40, 1), 0);
    EXPECT_GE(os::tick_ms() - t0, 1990u);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc timeout!\n\r"));
    drain.join();
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);  // the refused one was never queued
    EXPECT_TRUE(NoSlotKept());
}

}  // namespace
}  // namespace zor::test
