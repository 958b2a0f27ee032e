// An ISR module that stalls about 3 ms (busy-waiting) on every 500th
// Interrupt call and returns at once otherwise: the late event that the
// flight recorder's captures must find and explain. A stall preempted by
// the system lasts longer: each stall's own measure goes to the module's
// shared memory (doubles: [0] the number of stalls, [1..63] their ms), so
// that a test compares the recorder with what really happened.
#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {
constexpr std::uint32_t kEvery = 500;
constexpr double kStallMs = 3.0;
constexpr std::uint32_t kKept = 63;
std::atomic<std::uint32_t> g_calls{0};
std::atomic<double*> g_shared{nullptr};
}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    if (code == ZOR_FN_INITIALIZE) zor::os::now_ms();  // its first reading calibrates the clock
    if (code == ZOR_FN_INITIALIZE && arg) {
        // Written once now: the first write to the view may be slow too.
        auto* d = reinterpret_cast<double*>(arg);
        for (std::uint32_t i = 0; i <= kKept; ++i) d[i] = 0;
        g_shared.store(d);
    }
    if (code == ZOR_FN_SHUTDOWN) g_shared.store(nullptr);
    if (code != ZOR_FN_INTERRUPT || (g_calls.fetch_add(1) + 1) % kEvery != 0) return 0;
    const double start = zor::os::now_ms();
    double now = start;
    while (now < start + kStallMs) now = zor::os::now_ms();
    if (double* d = g_shared.load()) {
        const auto n = static_cast<std::uint32_t>(d[0]);
        if (n < kKept) d[1 + n] = now - start;
        std::atomic_ref<double>(d[0]).store(n + 1.0, std::memory_order_release);
    }
    return 0;
}
