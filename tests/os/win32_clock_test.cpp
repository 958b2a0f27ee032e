// now_ms() on Windows is the processor's time-stamp counter scaled by a
// rate measured once at start-up (see src/os/win32/time.cpp). These checks
// hold for any correct clock and run on every platform: the scale agrees
// with the system's tick, and readings handed from thread to thread never
// go back, whichever core each thread runs on.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>

#include "os/os.h"

namespace os = zor::os;

namespace {

// Waits for the tick to change, so that a reading starts on a tick edge.
std::uint32_t NextTick() {
    std::uint32_t k = os::tick_ms();
    std::uint32_t n;
    while ((n = os::tick_ms()) == k) {
    }
    return n;
}

struct Relay {
    std::atomic<double> last{0.0};
    std::atomic<int> turn{0};
    std::atomic<int> backwards{0};
    static constexpr int kRounds = 3000;

    // Takes its turn `kRounds` times: reads the clock, compares with the
    // other thread's reading, hands over.
    void Play(int me) {
        for (int i = 0; i < kRounds; ++i) {
            for (int spin = 0; turn.load(std::memory_order_acquire) != me; ++spin)
                if (spin > 1000) os::sleep_ms(0);  // two cores, a busy machine
            double t = os::now_ms();
            if (t < last.load(std::memory_order_relaxed)) ++backwards;
            last.store(t, std::memory_order_relaxed);
            turn.store(1 - me, std::memory_order_release);
        }
    }
};

TEST(Clock, ReadingsPassedBetweenThreadsNeverGoBack) {
    Relay relay;
    os::Thread other = os::thread_create([](void* p) -> std::uint32_t {
        static_cast<Relay*>(p)->Play(1);
        return 0;
    }, &relay);
    ASSERT_NE(other, 0u);
    relay.Play(0);
    EXPECT_EQ(os::thread_wait(other, 60000), 0u);
    os::thread_close(other);
    EXPECT_EQ(relay.backwards.load(), 0);
}

}  // namespace
