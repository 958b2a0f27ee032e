// The bundled periodic driver timer.irq (Windows builds only), driven
// directly: its period control, its event stream at 1 kHz, pause. Timing
// figures are printed; only counts and long-run rates are checked.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "irq/irq_files.h"
#include "zor/zor_module.h"

namespace zor::test {
namespace {

constexpr std::uint32_t kEvents = 2000;

struct Stream {
    double at[kEvents];
    std::uint32_t sequence[kEvents];
    std::atomic<std::uint32_t> count{0};
    std::atomic<std::uint32_t> beyond{0};  // events after the buffer filled
};
Stream g_stream;

std::uint32_t Record(std::uint32_t sequence) {
    std::uint32_t i = g_stream.count.load(std::memory_order_relaxed);
    if (i >= kEvents) {
        g_stream.beyond.fetch_add(1);
        return 0;
    }
    g_stream.at[i] = os::now_ms();
    g_stream.sequence[i] = sequence;
    g_stream.count.store(i + 1, std::memory_order_release);
    return 0;
}

class TimerTest : public testing::Test {
protected:
    void SetUp() override {
        if (!file.Loaded()) GTEST_SKIP() << "timer.irq is built for Windows only";
        getSet = file.Fn<ZorGetSetProc>(ZOR_IRQ_EXPORT_NAME);
        method = file.Fn<std::uint32_t (*)()>("Timer_Method");
        ASSERT_TRUE(getSet && method);
        g_stream.count = 0;
        g_stream.beyond = 0;
    }
    void TearDown() override {
        if (getSet) {
            getSet(ZOR_GS_SET_INTERRUPT, 0);
            getSet(ZOR_FN_SHUTDOWN, 0);
            getSet(ZOR_GS_IRQ_CONTROL, 1000);
        }
    }
    void Start() {
        getSet(ZOR_GS_SET_INTERRUPT, reinterpret_cast<std::uintptr_t>(&Record));
        ASSERT_EQ(getSet(ZOR_FN_INITIALIZE, 0), 0u);
    }
    bool WaitForEvents(std::uint32_t n, std::uint32_t timeoutMs) {
        for (std::uint32_t t = 0; t < timeoutMs && g_stream.count.load() < n; t += 5) os::sleep_ms(5);
        return g_stream.count.load() >= n;
    }

    DriverFile file{ProductDir(), u"timer.irq"};
    ZorGetSetProc getSet = nullptr;
    std::uint32_t (*method)() = nullptr;
};

TEST_F(TimerTest, PeriodIsQueriedSetAndRefusedBelowTheFloor) {
    EXPECT_EQ(getSet(ZOR_GS_IRQ_QUERY, 0), 1000u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, 500), 1000u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_QUERY, 0), 500u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, ZOR_TIMER_FLOOR_US - 1), ZOR_TIMER_REFUSED);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, ZOR_TIMER_CEILING_US + 1), ZOR_TIMER_REFUSED);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_QUERY, 0), 500u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, ZOR_TIMER_FLOOR_US), 500u);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, 1000), ZOR_TIMER_FLOOR_US);
}

TEST_F(TimerTest, ThousandHertzKeepsPaceWithoutDriftAndPausesWithoutGap) {
    Start();
    EXPECT_NE(getSet(ZOR_GS_GET_THREAD, 0), 0u);
    ASSERT_TRUE(WaitForEvents(kEvents, 30000));
    getSet(ZOR_GS_SET_INTERRUPT, 0);

    std::vector<double> gaps;
    std::uint32_t skipped = 0;
    for (std::uint32_t i = 1; i < kEvents; ++i) {
        ASSERT_GT(g_stream.sequence[i], g_stream.sequence[i - 1]) << i;
        skipped += g_stream.sequence[i] - g_stream.sequence[i - 1] - 1;
        gaps.push_back(g_stream.at[i] - g_stream.at[i - 1]);
    }
    std::vector<double> sorted = gaps;
    std::sort(sorted.begin(), sorted.end());
    double sum = 0;
    for (double g : gaps) sum += g;
    const double span = g_stream.at[kEvents - 1] - g_stream.at[0];
    const double ticks = g_stream.sequence[kEvents - 1] - g_stream.sequence[0];
    std::printf("timer.irq 1 kHz, method %u: %u events, interval min %.3f avg %.4f max %.3f "
                "p50 %.3f p99 %.3f ms, %u sequence numbers skipped, %.1f ticks/s\n",
                method(), kEvents, sorted.front(), sum / gaps.size(), sorted.back(),
                sorted[sorted.size() / 2], sorted[sorted.size() * 99 / 100], skipped,
                ticks * 1000.0 / span);
    // The sequence follows the clock: deadlines do not drift even when
    // wake-ups are late.
    EXPECT_NEAR(ticks / span, 1.0, 0.05);
    EXPECT_LT(sum / gaps.size(), 2.0);

    // A pause delivers nothing, and 100 ms of it are not 100 lost numbers.
    g_stream.count = 0;
    getSet(ZOR_GS_SET_INTERRUPT, reinterpret_cast<std::uintptr_t>(&Record));
    ASSERT_TRUE(WaitForEvents(1, 5000));
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, 0), 1000u);
    os::sleep_ms(30);  // an event in flight may still land
    const std::uint32_t paused = g_stream.count.load();
    os::sleep_ms(100);
    EXPECT_EQ(g_stream.count.load(), paused);
    EXPECT_EQ(getSet(ZOR_GS_IRQ_CONTROL, 1000), 0u);
    ASSERT_TRUE(WaitForEvents(paused + 1, 5000));
    EXPECT_LT(g_stream.sequence[paused] - g_stream.sequence[paused - 1], 5u);
}

}  // namespace
}  // namespace zor::test
