/* An ISR module built with clang's structured exception handling: its
   Interrupt takes its own lock inside __try and releases it in __finally.
   Interrupt with argument bit 0 faults while holding the lock, with bit 1
   its __finally faults too (before it releases the lock), with bit 2 it spins
   for ever holding the lock (until the watchdog aborts it). A call that finds
   the lock still taken answers 0xDEAD instead of waiting for ever. */
#include <windows.h>

#include "zor/zor_module.h"

static volatile LONG g_lock = 0;
static volatile LONG g_finally_runs = 0;
static volatile int* volatile g_bad = (volatile int*)16;

ZOR_EXPORT LONG finally_runs(void) { return g_finally_runs; }

/* clang covers calls inside __try, not faults of the __try body itself. */
__declspec(noinline) static void Touch(uintptr_t arg, uintptr_t bit) {
    if (arg & bit) *g_bad = (int)bit;
}

__declspec(noinline) static void Spin(uintptr_t arg) {
    while (arg & 4) __asm__ volatile("" ::: "memory");
}

static uint32_t Interrupt(uintptr_t arg) {
    if (InterlockedCompareExchange(&g_lock, 1, 0) != 0) return 0xDEAD;
    __try {
        Spin(arg);
        Touch(arg, 1);
    } __finally {
        InterlockedIncrement(&g_finally_runs);
        Touch(arg, 2);
        InterlockedExchange(&g_lock, 0);
    }
    return 1;
}

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    return code == ZOR_FN_INTERRUPT ? Interrupt(arg) : 0;
}
