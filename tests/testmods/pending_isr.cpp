// An ISR module whose Initialize answers 2 (start pending) until it is told
// that it is ready; counts its Initialize calls.
#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace {
std::atomic<std::uint32_t> g_ready{0};
std::atomic<std::uint32_t> g_inits{0};
}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    if (code != ZOR_FN_INITIALIZE) return 0;
    g_inits.fetch_add(1);
    return g_ready.load() ? ZOR_INIT_OK : ZOR_INIT_PENDING;
}

ZOR_EXPORT void PendingIsr_SetReady(uint32_t ready) { g_ready.store(ready); }
ZOR_EXPORT uint32_t PendingIsr_Inits() { return g_inits.load(); }
ZOR_EXPORT void PendingIsr_Reset() {
    g_ready.store(0);
    g_inits.store(0);
}
