// The module of the unload stress. It installs two custom services when it
// starts; every client request, ExecISRFunc, interrupt and custom service
// locks and unlocks a range of its own memory through the host. The test
// marks it unloaded between its registrations (while it keeps the library
// loaded); any code of it that runs while so marked is counted.
#include <atomic>
#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {

constexpr std::uint32_t kFirstCode = 0x7100, kCodes = 2, kAnswer = 0x600D;

std::atomic<ZorServiceProc> g_service{nullptr};
std::atomic<std::uint32_t> g_handle{0}, g_unloaded{0}, g_strays{0};
unsigned char g_range[64];

void Check() {
    if (g_unloaded.load(std::memory_order_acquire)) g_strays.fetch_add(1);
}

void LockOwn() {
    const ZorServiceProc s = g_service.load();
    const std::uint32_t h = g_handle.load();
    if (!s || !h) return;
    const auto base = reinterpret_cast<std::uintptr_t>(g_range);
    if (s(SERV_MemLock, h, base, sizeof g_range, 0, 0, 0) == 1) s(SERV_MemUnlock, h, base, 0, 0, 0, 0);
}

// Every other call (by its first argument) stays a while, so that an
// unloading that does not wait for it meets it inside.
std::uint32_t Custom(std::uint32_t code, uintptr_t a1, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    Check();
    LockOwn();
    if (a1 % 2 == 0) zor::os::sleep_ms(2);
    Check();
    return 0xC5000000u | (code & 0xFFFF);
}

}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    Check();
    switch (code) {
    case ZOR_FN_SET_ISR_HANDLE: g_handle.store(static_cast<std::uint32_t>(arg)); break;
    case ZOR_FN_SET_SERVICE_PROC: g_service.store(reinterpret_cast<ZorServiceProc>(arg)); break;
    case ZOR_FN_INITIALIZE:
        for (std::uint32_t c = kFirstCode; c < kFirstCode + kCodes; ++c)
            g_service.load()(SERV_InstallService, g_handle.load(), c, reinterpret_cast<uintptr_t>(&Custom), 0, 0, 0);
        break;
    case ZOR_FN_EXEC_ISR_FUNC:
    case ZOR_FN_EXEC_REMOTE_FUNC:
    case ZOR_FN_INTERRUPT: LockOwn(); break;
    default: break;
    }
    Check();
    return code == ZOR_FN_EXEC_REMOTE_FUNC ? kAnswer : 0;
}

ZOR_EXPORT void Test_SetUnloaded(uint32_t unloaded) { g_unloaded.store(unloaded, std::memory_order_release); }
ZOR_EXPORT uint32_t Test_Strays() { return g_strays.load(); }
