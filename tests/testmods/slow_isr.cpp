// An ISR module that busy-waits a configurable time in one function code
// (Interrupt unless told otherwise) and counts its calls.
#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {
std::atomic<std::uint32_t> g_busyUs{0};
std::atomic<std::uint32_t> g_busyCode{ZOR_FN_INTERRUPT};
std::atomic<std::uint32_t> g_calls{0};
}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    g_calls.fetch_add(1);
    if (code == g_busyCode.load()) {
        const double end = zor::os::now_ms() + g_busyUs.load() / 1000.0;
        while (zor::os::now_ms() < end) {
        }
    }
    return 0;
}

ZOR_EXPORT void SlowIsr_Set(uint32_t code, uint32_t busyUs) {
    g_busyCode.store(code);
    g_busyUs.store(busyUs);
}
ZOR_EXPORT uint32_t SlowIsr_Calls() { return g_calls.load(); }
