// The configurable IRQ driver of the tests (test_irq.irq; noexport_irq.irq is
// the same source without the entry). It records every command, answers
// Initialize and GS_GET_THREAD as configured, can fault in one command,
// installs a custom service when it starts and probes it when its
// interrupt entry is withdrawn, and can hold a client's call inside.
#include <atomic>
#include <cstdint>
#include <thread>

#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kCap = 64, kCustomCode = 0x4000;

std::uint32_t g_codes[kCap];
std::uint64_t g_args[kCap];
std::atomic<std::uint32_t> g_count{0}, g_hold{0}, g_inside{0};
std::uint32_t g_initAnswer = 0, g_threadAnswer = 0, g_faultCode = 0, g_number = 0;
ZorServiceProc g_service = nullptr;
std::int64_t g_probeAtWithdrawal = -1;

void Add(std::uint32_t code, std::uint64_t arg) {
    const std::uint32_t n = g_count.load();
    if (n < kCap) {
        g_codes[n] = code;
        g_args[n] = arg;
        g_count.store(n + 1);
    }
}

uint32_t CustomService(uint32_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) { return 0x5A; }

}  // namespace

#ifndef TEST_IRQ_NO_ENTRY
ZOR_EXPORT uint32_t IRQ_GetSet(uint32_t code, uintptr_t arg) {
    Add(code, arg);
    if (g_faultCode != 0 && code == g_faultCode) *reinterpret_cast<volatile int* volatile>(std::uintptr_t{64}) = 1;
    switch (code) {
    case ZOR_FN_SET_ISR_HANDLE: g_number = static_cast<std::uint32_t>(arg); return 0;
    case ZOR_FN_SET_SERVICE_PROC: g_service = reinterpret_cast<ZorServiceProc>(arg); return 0;
    case ZOR_FN_INITIALIZE:
        if (g_service)
            g_service(SERV_InstallService, g_number, kCustomCode, reinterpret_cast<uintptr_t>(&CustomService), 0, 0, 0);
        return g_initAnswer;
    case ZOR_GS_SET_INTERRUPT:
        if (arg == 0 && g_service) g_probeAtWithdrawal = g_service(kCustomCode, 0, 0, 0, 0, 0, 0);
        return 0;
    case ZOR_GS_GET_THREAD: return g_threadAnswer;
    case ZOR_GS_IRQ_QUERY: return 0x77;
    case ZOR_GS_IRQ_CONTROL: return static_cast<std::uint32_t>(arg) + 1;
    case ZOR_FN_EXEC_REMOTE_FUNC:
        g_inside.store(1);
        while (g_hold.load()) std::this_thread::yield();
        return 0;
    default: return 0;
    }
}
#else
ZOR_EXPORT uint32_t IRQ_GetSetX(uint32_t, uintptr_t) { return 0; }
#endif

// Answers for Initialize and GS_GET_THREAD, the command that faults (0:
// none); forgets the record.
ZOR_EXPORT void Test_Configure(uint32_t initAnswer, uint32_t threadAnswer, uint32_t faultCode) {
    g_initAnswer = initAnswer;
    g_threadAnswer = threadAnswer;
    g_faultCode = faultCode;
    g_count = 0;
    g_inside = 0;
    g_probeAtWithdrawal = -1;
}
// While set, a client's call (ExecRemoteFunc) stays inside; Test_Inside
// tells that one arrived.
ZOR_EXPORT void Test_Hold(uint32_t hold) { g_hold.store(hold); }
ZOR_EXPORT uint32_t Test_Inside() { return g_inside.load(); }
// A marker from the test (e.g. "the library was freed") in the same record.
ZOR_EXPORT void Test_Mark(uint32_t marker) { Add(marker, 0); }
ZOR_EXPORT uint32_t Test_Record(uint32_t* codes, uint64_t* args, uint32_t cap) {
    const std::uint32_t n = g_count.load();
    for (std::uint32_t i = 0; i < n && i < cap; ++i) {
        codes[i] = g_codes[i];
        args[i] = g_args[i];
    }
    return n;
}
// What the custom service answered when the interrupt entry was withdrawn (-1: never probed).
ZOR_EXPORT int64_t Test_ProbeAtWithdrawal() { return g_probeAtWithdrawal; }
