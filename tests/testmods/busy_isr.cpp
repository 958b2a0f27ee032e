// An ISR module whose Interrupt takes 1 ms (busy-waiting), for figures that
// follow a known load; built as faulting_isr, its Interrupt faults instead.
#include "os/os.h"
#include "zor/zor_module.h"

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    if (code != ZOR_FN_INTERRUPT) return 0;
#ifdef BUSY_ISR_FAULTS
    *reinterpret_cast<volatile int*>(uintptr_t{64}) = 1;  // the never-mapped first page
#endif
    const double end = zor::os::now_ms() + 1.0;
    while (zor::os::now_ms() < end) {
    }
    return 0;
}
