// A plain module for the OS-layer tests: a call through null whose return
// address lies in this module.
#include <cstdint>

#include "zor/zor_module.h"

ZOR_EXPORT void os_probe_call(void (*f)()) {
    f();
    asm volatile("" ::: "memory");  // keep the call from becoming a jump
}
