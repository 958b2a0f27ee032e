// An ISR module that raises an access violation in one function code
// (Interrupt unless told otherwise) and counts its calls.
#include <atomic>
#include <cstdint>

#include "zor/zor_module.h"

namespace {
std::atomic<std::uint32_t> g_faultCode{ZOR_FN_INTERRUPT};
std::atomic<std::uint32_t> g_calls{0};

// An address in the never-mapped first page, but not null: a null store
// would be caught by the undefined-behaviour checks of sanitizer builds.
void Fault() {
    volatile int* volatile p = reinterpret_cast<volatile int*>(std::uintptr_t{64});
    *p = 1;
}
}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    g_calls.fetch_add(1);
    if (code == g_faultCode.load()) Fault();
    return 0;
}

// 0: never fault.
ZOR_EXPORT void FaultingIsr_FaultIn(uint32_t code) { g_faultCode.store(code); }
ZOR_EXPORT uint32_t FaultingIsr_Calls() { return g_calls.load(); }
