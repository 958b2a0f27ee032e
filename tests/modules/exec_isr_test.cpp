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

namespace zor {
namespace {

using test::IrqThread;
using test::TestModule;

constexpr std::uint32_t kActExec = 4;

std::uint32_t Expected(std::uint32_t func, std::uint32_t size, std::uint8_t first) {
    return func * 7 + size + (size ? first : 0u);
}

class ExecTest : public test::HostTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(a.Loaded() && b.Loaded());
        a.Fn<void (*)()>("Test_Reset")();
        b.Fn<void (*)()>("Test_Reset")();
        sa = test::RegisterIsr(h, "service_isr");
        sb = test::RegisterIsr(h, "service_isr_b");
        ASSERT_NE(sb, 0u);
    }

    void MakeArea(std::uint32_t queueBytes) {
        ASSERT_NE(h.shm.SysMem(os::current_process_id(), ZOR_SSA_QUEUE + queueBytes), 0u);
    }
    std::uint32_t Word(std::uint32_t offset) { return TdlWord(h.shm.Area(), offset).load(); }

    std::int32_t Exec(std::uint32_t module, std::uint32_t func, const void* data,
                      std::uint32_t size, std::uint32_t wait) {
        return h.services.ExecISRFunc(module, func, data, size, wait);
    }
    std::uint32_t Execs() { return b.Fn<std::uint32_t (*)()>("Test_Execs")(); }

    TestModule a{"service_isr"};
    TestModule b{"service_isr_b"};
    std::uint32_t sa = 0, sb = 0;
    IrqThread irq;
};

TEST_F(ExecTest, OnTheDispatchThreadTheTargetIsCalledAtOnceUpTo1192Bytes) {
    auto setAction = a.Fn<void (*)(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                   const void*, std::uint32_t)>("Test_SetAction");
    auto result = a.Fn<std::int64_t (*)()>("Test_ActionResult");
    std::vector<unsigned char> data(1193);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 13 + 1);

    setAction(kActExec, sb, 0x42, 1192, data.data(), 1193);
    irq.Fire(1);
    EXPECT_EQ(result(), 1);  // called, its own result not passed back
    ASSERT_EQ(Execs(), 1u);  // within the same event, no area needed
    EXPECT_EQ(b.Fn<std::uint32_t (*)()>("Test_LastFunc")(), 0x42u);
    EXPECT_EQ(b.Fn<std::uint32_t (*)()>("Test_LastSize")(), 1192u);
    EXPECT_EQ(std::memcmp(b.Fn<const unsigned char* (*)()>("Test_LastData")(), data.data(), 1192), 0);
    EXPECT_EQ(b.Fn<std::uint32_t (*)()>("Test_LastOnIsrThread")(), 1u);

    setAction(kActExec, sb, 0x43, 1193, nullptr, 0);
    irq.Fire(2);
    EXPECT_EQ(result(), 0);
    EXPECT_EQ(Execs(), 1u);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc (within ISR!) ISR#" + std::to_string(sb) +
                             ": Argument too large!\n\r"));

    log.Clear();
    setAction(kActExec, 77, 0x44, 4, nullptr, 0);  // no such module: refused silently
    irq.Fire(3);
    EXPECT_EQ(result(), 0);
    EXPECT_EQ(log.LinesOf(2, 0), std::vector<std::string>{});
}

TEST_F(ExecTest, QueuedRequestsRunAtTheNextEventInTheWritersContext) {
    MakeArea(4096);
    const unsigned char d[2] = {9, 8};
    EXPECT_EQ(Exec(sb, 5, d, 2, 0), 1);
    EXPECT_EQ(Exec(99, 6, d, 2, 0), 1);  // accepted, never run: not checked when queued
    EXPECT_EQ(Execs(), 0u);
    irq.Fire(1);
    EXPECT_EQ(Execs(), 1u);
    EXPECT_EQ(b.Fn<std::uint32_t (*)()>("Test_LastContext")(), os::current_process_id());
    EXPECT_EQ(b.Fn<std::uint32_t (*)()>("Test_LastOnIsrThread")(), 1u);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
}

TEST_F(ExecTest, QueuedSizeLimitIsTheQueueCapacity) {
    MakeArea(100);
    std::vector<unsigned char> data(100, 3);
    EXPECT_EQ(Exec(sb, 1, data.data(), 77, 0), 0);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc ISR#" + std::to_string(sb) +
                             ": Argument too large!\n\r"));
    EXPECT_EQ(Exec(sb, 1, data.data(), 76, 0), 1);  // 24 + 76 = capacity, queue empty
    irq.Fire(1);
    EXPECT_EQ(Execs(), 1u);
}

TEST_F(ExecTest, RefusalsWithoutAreaOrReadableArgument) {
    const unsigned char d[4] = {};
    EXPECT_EQ(Exec(sb, 1, d, 4, 1), 0);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc ISR#" + std::to_string(sb) +
                             ": no system shared memory to queue into!\n\r"));
    MakeArea(256);
    EXPECT_EQ(Exec(sb, 1, reinterpret_cast<const void*>(std::uintptr_t{64}), 4, 1), 0);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc ISR#" + std::to_string(sb) +
                             ": argument not readable!\n\r"));
    EXPECT_EQ(Word(ZOR_SSA_SYNC_TDL), 0u);
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    for (std::uint32_t k = 1; k < ZOR_SSA_RESULT_SLOTS; ++k)
        ASSERT_EQ(h.shm.Area()[ZOR_SSA_RESULT_FLAGS + k], 0) << k;  // no slot kept
}

// Fires events from a thread of its own until stopped (the dispatch thread).
class EventPump {
public:
    explicit EventPump(std::uint32_t periodMs) : period_(periodMs) {
        thread_ = std::thread([this] {
            std::uint32_t seq = 1;
            while (!stop_.load()) {
                OnInterrupt(seq++);
                if (period_) os::sleep_ms(period_);
                else std::this_thread::yield();
            }
        });
    }
    ~EventPump() {
        stop_.store(true);
        thread_.join();
    }

private:
    std::uint32_t period_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST_F(ExecTest, ManyThreadsQueueAndWaitAtOnceAndEachGetsItsOwnResult) {
    MakeArea(64 * 1024);
    constexpr std::uint32_t kThreads = 4, kEach = 150;
    std::atomic<std::uint32_t> wrong{0}, refused{0};
    {
        EventPump pump(1);
        std::vector<std::thread> threads;
        for (std::uint32_t t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (std::uint32_t i = 0; i < kEach; ++i) {
                    const std::uint32_t func = 1000 * (t + 1) + i;
                    const auto byte = static_cast<std::uint8_t>(i * 3 + t);
                    const std::uint32_t wait = i % 2;
                    const std::int32_t r = h.services.ExecISRFunc(sb, func, &byte, 1, wait);
                    if (r == 0) ++refused;
                    else if (wait && static_cast<std::uint32_t>(r) != Expected(func, 1, byte)) ++wrong;
                    else if (!wait && r != 1) ++wrong;
                }
            });
        }
        for (auto& th : threads) th.join();
        // The last requests without wait run at the next event.
        for (int i = 0; i < 1000 && Execs() < kThreads * kEach; ++i) os::sleep_ms(1);
    }
    EXPECT_EQ(refused.load(), 0u);
    EXPECT_EQ(wrong.load(), 0u);
    EXPECT_EQ(Execs(), kThreads * kEach);
    std::uint64_t sum = 0;
    for (std::uint32_t t = 0; t < kThreads; ++t)
        for (std::uint32_t i = 0; i < kEach; ++i) sum += 1000 * (t + 1) + i;
    EXPECT_EQ(b.Fn<std::uint64_t (*)()>("Test_FuncSum")(), sum);
    for (std::uint32_t k = 1; k < ZOR_SSA_RESULT_SLOTS; ++k)
        ASSERT_EQ(h.shm.Area()[ZOR_SSA_RESULT_FLAGS + k], 0) << k;  // every slot given back
}

TEST_F(ExecTest, AFullQueueIsRefusedAfterTwoSecondsEvenIfItDrainsMeanwhile) {
    MakeArea(100);
    std::vector<unsigned char> data(100, 1);
    ASSERT_EQ(Exec(sb, 1, data.data(), 60, 0), 1);
    std::atomic<bool> drained{false};
    std::thread drain([&] {
        os::sleep_ms(200);
        irq.Fire(1);
        drained = true;
    });
    const std::uint32_t t0 = os::tick_ms();
    EXPECT_EQ(Exec(sb, 2, data.data(), 40, 1), 0);
    const std::uint32_t took = os::tick_ms() - t0;
    drain.join();
    EXPECT_TRUE(drained.load());
    EXPECT_GE(took, 1990u);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc timeout!\n\r"));
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);  // the refused one was never queued
}

TEST_F(ExecTest, AHeldSyncTdlIsWaitedForTwoSecondsThenRefused) {
    MakeArea(256);
    TdlWord(h.shm.Area(), ZOR_SSA_SYNC_TDL).store(1);
    const unsigned char d = 1;
    const std::uint32_t t0 = os::tick_ms();
    EXPECT_EQ(Exec(sb, 1, &d, 1, 1), 0);
    EXPECT_GE(os::tick_ms() - t0, 1990u);
    EXPECT_TRUE(log.Contains("ZOR: ExecISRFunc timeout!\n\r"));
    EXPECT_EQ(Word(ZOR_SSA_ENTRY_COUNT), 0u);
    for (std::uint32_t k = 1; k < ZOR_SSA_RESULT_SLOTS; ++k)
        ASSERT_EQ(h.shm.Area()[ZOR_SSA_RESULT_FLAGS + k], 0) << k;
}

TEST_F(ExecTest, The1024thWaitingRequestOverflowsTheSlotsButStillRuns) {
    MakeArea(1100 * 24);
    unsigned char* area = h.shm.Area();
    // 1023 requests are waiting for their results (queued as another
    // process's writer would).
    for (std::uint32_t k = 1; k < ZOR_SSA_RESULT_SLOTS; ++k) {
        TdlTicket t;
        ASSERT_EQ(TdlAppend(area, h.shm.AreaSize(), 1, sb, k, nullptr, 0, true, &t, 100),
                  TdlStatus::kQueued);
    }
    std::atomic<std::int32_t> r{-1};
    std::thread waiter([&] { r = Exec(sb, 5000, nullptr, 0, 1); });
    for (int i = 0; i < 2000 && Word(ZOR_SSA_ENTRY_COUNT) < 1024; ++i) os::sleep_ms(1);
    EXPECT_TRUE(log.Contains("ZOR: async result list overflow!!!\n\r"));
    irq.Fire(1);
    waiter.join();
    EXPECT_EQ(r.load(), 0);      // its result was not kept ...
    EXPECT_EQ(Execs(), 1024u);   // ... but it ran
    EXPECT_EQ(b.Fn<std::uint32_t (*)()>("Test_LastFunc")(), 5000u);
}

}  // namespace
}  // namespace zor
