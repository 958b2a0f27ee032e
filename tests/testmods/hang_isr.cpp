// An ISR module that hangs on request: its Interrupt or ExecISRFunc spins
// for ever (mode 1) or sleeps for ever (mode 2: Sleep(INFINITE) on Windows,
// a nanosleep that resumes after every signal on Linux). Mode 0 returns.
#include <atomic>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {
std::atomic<std::uint32_t> g_mode[2], g_calls{0};
}

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t) {
    if (code != ZOR_FN_INTERRUPT && code != ZOR_FN_EXEC_ISR_FUNC) return 0;
    g_calls.fetch_add(1);
    switch (g_mode[code == ZOR_FN_INTERRUPT].load()) {
        case 1:
            for (;;) asm volatile("" ::: "memory");
        case 2:
            zor::os::sleep_ms(0xFFFFFFFFu);
            return 2;
        default:
            return 1;
    }
}

// Mode of ExecISRFunc (which 0) or Interrupt (which 1).
ZOR_EXPORT void Hang_Set(uint32_t which, uint32_t mode) { g_mode[which != 0].store(mode); }
ZOR_EXPORT uint32_t Hang_Calls() { return g_calls.load(); }
