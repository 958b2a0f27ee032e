// An ISR module that drives the host's service entry as the tests direct:
// at its next Interrupt it performs one chosen action (block itself, set a
// priority, install a custom service, call ExecISRFunc, ...), and every
// ExecISRFunc packet it receives is recorded and answered with a result
// computed from it (func * 7 + size + first data byte). Its Interrupt calls
// are stamped from a counter the test hands in, to see the calling order of
// several modules. service_isr_b is the same module under another name.
#include <atomic>
#include <cstdint>
#include <cstring>

#include "zor/zor_module.h"

namespace {

enum Action : std::uint32_t {
    kActNone = 0,
    kActBlockSelf = 1,     // SERV_BlockISR(own number, 1)
    kActSetPrio = 2,       // SERV_SetISRPrio(a1, a2)
    kActInstall = 3,       // SERV_InstallService(own number, a1, custom)
    kActExec = 4,          // SERV_ExecISRFunc(a1, a2, buffer, a3, wait 1)
    kActIsIsrThread = 5,   // SERV_IsISRThread
    kActBlockOther = 6,    // SERV_BlockISR(a1, a2)
};

std::atomic<ZorServiceProc> g_service{nullptr};
std::atomic<std::uint32_t> g_number{0};

std::atomic<std::uint32_t> g_action{kActNone};
std::uintptr_t g_a1 = 0, g_a2 = 0, g_a3 = 0;
std::atomic<std::int64_t> g_actionResult{0};
std::atomic<std::uint32_t> g_actions{0};

std::atomic<std::uint32_t>* g_orderCounter = nullptr;
std::atomic<std::uint32_t> g_lastStamp{0};
std::atomic<std::uint32_t> g_interrupts{0};
std::atomic<std::uint32_t> g_lastSequence{0};

// ExecISRFunc packets, counted from any thread; the last one kept.
std::atomic<std::uint32_t> g_execs{0};
std::atomic<std::uint64_t> g_funcSum{0};
std::uint32_t g_lastFunc = 0;
std::uint32_t g_lastSize = 0;
unsigned char g_lastData[2048];
std::atomic<std::uint32_t> g_lastContext{0};
std::atomic<std::uint32_t> g_lastOnIsrThread{0};
std::atomic<std::uint32_t> g_lastExecStamp{0};

unsigned char g_execBuffer[2048];

// Answers with the installing module's number, so that tests can tell
// which of two installations of the same code was called.
uint32_t Custom(uint32_t, uintptr_t a1, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    return 0xC0000000u | (g_number.load() << 16) | (static_cast<std::uint32_t>(a1) & 0xFFFF);
}

std::atomic<std::uint32_t> g_serviceCalls{0};

// Never a tail call: the host names the caller from the return address,
// which must lie inside this module.
std::int64_t Call(std::uint32_t code, std::uintptr_t a1 = 0, std::uintptr_t a2 = 0,
                  std::uintptr_t a3 = 0, std::uintptr_t a4 = 0, std::uintptr_t a5 = 0) {
    ZorServiceProc s = g_service.load();
    if (!s) return -1;
    const std::int64_t r = s(code, a1, a2, a3, a4, a5, 0);
    g_serviceCalls.fetch_add(1);
    return r;
}

void RunAction() {
    const std::uint32_t action = g_action.exchange(kActNone);
    if (action == kActNone) return;
    std::int64_t r = 0;
    const std::uint32_t self = g_number.load();
    switch (action) {
    case kActBlockSelf: r = Call(SERV_BlockISR, self, 1); break;
    case kActSetPrio: r = Call(SERV_SetISRPrio, g_a1, g_a2); break;
    case kActInstall:
        r = Call(SERV_InstallService, self, g_a1, reinterpret_cast<std::uintptr_t>(&Custom));
        break;
    case kActExec:
        // Asks to wait: on the dispatch thread that must not wait.
        r = Call(SERV_ExecISRFunc, g_a1, g_a2, reinterpret_cast<std::uintptr_t>(g_execBuffer),
                 g_a3, 1);
        break;
    case kActIsIsrThread: r = Call(SERV_IsISRThread); break;
    case kActBlockOther: r = Call(SERV_BlockISR, g_a1, g_a2); break;
    }
    g_actionResult.store(r);
    g_actions.fetch_add(1);
}

// Queued packets follow each other unpadded, so they are read bytewise.
std::uint32_t OnExec(const unsigned char* p) {
    std::uint32_t func, size;
    std::memcpy(&func, p, 4);
    std::memcpy(&size, p + 4, 4);
    const std::uint32_t n = size < sizeof g_lastData ? size : sizeof g_lastData;
    g_lastFunc = func;
    g_lastSize = size;
    std::memcpy(g_lastData, p + 8, n);
    g_lastContext.store(static_cast<std::uint32_t>(Call(SERV_GetCallContext)));
    g_lastOnIsrThread.store(static_cast<std::uint32_t>(Call(SERV_IsISRThread)));
    if (g_orderCounter) g_lastExecStamp.store(g_orderCounter->fetch_add(1) + 1);
    g_funcSum.fetch_add(func);
    g_execs.fetch_add(1);
    return func * 7 + size + (size ? p[8] : 0u);
}

}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    switch (code) {
    case ZOR_FN_SET_ISR_HANDLE: g_number.store(static_cast<std::uint32_t>(arg)); return 0;
    case ZOR_FN_SET_SERVICE_PROC: g_service.store(reinterpret_cast<ZorServiceProc>(arg)); return 0;
    case ZOR_FN_EXEC_ISR_FUNC: return OnExec(reinterpret_cast<const unsigned char*>(arg));
    case ZOR_FN_INTERRUPT:
        if (g_orderCounter) g_lastStamp.store(g_orderCounter->fetch_add(1) + 1);
        g_lastSequence.store(static_cast<std::uint32_t>(arg));
        g_interrupts.fetch_add(1);
        RunAction();
        return 0;
    default: return 0;
    }
}

// ---------------------------------------------------------------- test controls
ZOR_EXPORT void Test_Reset() {
    g_action.store(kActNone);
    g_actionResult.store(0);
    g_actions.store(0);
    g_orderCounter = nullptr;
    g_lastStamp.store(0);
    g_interrupts.store(0);
    g_execs.store(0);
    g_funcSum.store(0);
    g_lastContext.store(0);
    g_lastExecStamp.store(0);
}
ZOR_EXPORT uint32_t Test_Number() { return g_number.load(); }
// Sets the action for the next Interrupt; `data` (up to 2048 bytes) fills
// the buffer that kActExec hands to ExecISRFunc.
ZOR_EXPORT void Test_SetAction(uint32_t action, uintptr_t a1, uintptr_t a2, uintptr_t a3,
                               const void* data, uint32_t dataSize) {
    g_a1 = a1;
    g_a2 = a2;
    g_a3 = a3;
    if (data && dataSize <= sizeof g_execBuffer) std::memcpy(g_execBuffer, data, dataSize);
    g_action.store(action);
}
ZOR_EXPORT int64_t Test_ActionResult() { return g_actionResult.load(); }
ZOR_EXPORT uint32_t Test_Actions() { return g_actions.load(); }
ZOR_EXPORT void Test_SetOrderCounter(std::atomic<std::uint32_t>* counter) { g_orderCounter = counter; }
ZOR_EXPORT uint32_t Test_LastStamp() { return g_lastStamp.load(); }
ZOR_EXPORT uint32_t Test_LastExecStamp() { return g_lastExecStamp.load(); }
ZOR_EXPORT uint32_t Test_Interrupts() { return g_interrupts.load(); }
ZOR_EXPORT uint32_t Test_Execs() { return g_execs.load(); }
ZOR_EXPORT uint64_t Test_FuncSum() { return g_funcSum.load(); }
ZOR_EXPORT uint32_t Test_LastFunc() { return g_lastFunc; }
ZOR_EXPORT uint32_t Test_LastSize() { return g_lastSize; }
ZOR_EXPORT const unsigned char* Test_LastData() { return g_lastData; }
ZOR_EXPORT uint32_t Test_LastContext() { return g_lastContext.load(); }
ZOR_EXPORT uint32_t Test_LastOnIsrThread() { return g_lastOnIsrThread.load(); }
// A service call made from inside this module (its return address lies here).
ZOR_EXPORT int64_t Test_CallService(uint32_t code, uintptr_t a1, uintptr_t a2, uintptr_t a3) {
    return Call(code, a1, a2, a3);
}
ZOR_EXPORT uintptr_t Test_CustomAddress() { return reinterpret_cast<uintptr_t>(&Custom); }
