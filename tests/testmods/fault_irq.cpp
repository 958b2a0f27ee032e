// An IRQ driver that raises a machine fault in one chosen command (none
// until told) and otherwise behaves: Initialize answers 0.
#include <cstdint>

#include "zor/zor_module.h"

namespace {
std::uint32_t g_faultCode = 0;  // 0: never fault
std::uint32_t g_calls = 0;

// The never-mapped first page, but not null (sanitizers check null stores).
void Fault() {
    volatile int* volatile p = reinterpret_cast<volatile int*>(std::uintptr_t{64});
    *p = 1;
}
}  // namespace

ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t) {
    ++g_calls;
    if (g_faultCode != 0 && code == g_faultCode) Fault();
    return code == ZOR_GS_IRQ_QUERY ? 42u : 0u;
}

ZOR_EXPORT void Test_FaultIn(uint32_t code) { g_faultCode = code; }
ZOR_EXPORT uint32_t Test_Calls() { return g_calls; }
