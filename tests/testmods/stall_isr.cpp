// An ISR module that stalls about 3 ms (busy-waiting) on every 500th
// Interrupt call and returns at once otherwise: the late event that the
// flight recorder's captures must find and explain.
#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {
constexpr std::uint32_t kEvery = 500;
constexpr double kStallMs = 3.0;
std::atomic<std::uint32_t> g_calls{0};
}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    if (code != ZOR_FN_INTERRUPT || (g_calls.fetch_add(1) + 1) % kEvery != 0) return 0;
    const double end = zor::os::now_ms() + kStallMs;
    while (zor::os::now_ms() < end) {
    }
    return 0;
}
