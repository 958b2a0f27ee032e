// An ISR module whose Interrupt takes 1 ms (busy-waiting), for figures that
// follow a known load.
#include "os/os.h"
#include "zor/zor_module.h"

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    if (code == ZOR_FN_INTERRUPT) {
        const double end = zor::os::now_ms() + 1.0;
        while (zor::os::now_ms() < end) {
        }
    }
    return 0;
}
