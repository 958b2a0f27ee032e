// An ISR module that hangs on request, in Interrupt or in ExecISRFunc:
//   mode 1  spins for ever
//   mode 2  sleeps for ever: Sleep(INFINITE) on Windows, a nanosleep that
//           resumes after every signal on Linux
//   mode 3  sleeps 1 ms at a time, for ever (a wait that returns now and then)
// Mode 0 returns. Hang_Set sets the modes in-process; a client sets the
// Interrupt mode with ExecISRFunc (its function code is the mode) while the
// ExecISRFunc mode is 0.
#include <atomic>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {

std::atomic<std::uint32_t> g_mode[2], g_calls{0};

std::uint32_t Hang(std::uint32_t mode) {
    switch (mode) {
        case 1:
            for (;;) asm volatile("" ::: "memory");
        case 2:
            zor::os::sleep_ms(0xFFFFFFFFu);
            return 2;
        case 3:
            for (;;) zor::os::sleep_ms(1);
        default:
            return 1;
    }
}

}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    if (code == ZOR_FN_INTERRUPT) {
        g_calls.fetch_add(1);
        return Hang(g_mode[1].load());
    }
    if (code != ZOR_FN_EXEC_ISR_FUNC) return 0;
    if (const std::uint32_t mode = g_mode[0].load()) return Hang(mode);
    g_mode[1].store(reinterpret_cast<const ZorExecIsrPacket*>(arg)->func);
    return 1;
}

// Mode of ExecISRFunc (which 0) or Interrupt (which 1).
ZOR_EXPORT void Hang_Set(uint32_t which, uint32_t mode) { g_mode[which != 0].store(mode); }
ZOR_EXPORT uint32_t Hang_Calls() { return g_calls.load(); }
