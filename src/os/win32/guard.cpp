// The fault guard: runs a module call so that a machine fault inside it is
// caught and the calling thread goes on (guard_internal.h tells how). Here:
// the thread's guards, installation, and the guard itself.
#include <malloc.h>

#include "os/win32/guard_internal.h"

namespace zor::os {
namespace win32::guard {

// ------------------------------------------------------------ thread state
DWORD g_slot = TLS_OUT_OF_INDEXES;
std::uint32_t g_slot_offset = 0;  // byte offset in the thread block, 0 = use the API
constexpr std::uint32_t kTlsSlotsOffset = 0x1480;

// ------------------------------------------------------------ installation
namespace {
PVOID g_veh = nullptr;
}  // namespace

void install() {
    static const bool done = [] {
        g_slot = TlsAlloc();
        note_system_dir();
        g_veh = AddVectoredExceptionHandler(1, guard_veh);
        if (g_slot != TLS_OUT_OF_INDEXES && g_slot < 64) g_slot_offset = kTlsSlotsOffset + 8 * g_slot;
        return true;
    }();
    (void)done;
}

namespace {

extern "C" IMAGE_DOS_HEADER __ImageBase;

// Installs at start-up; inside a library that can be unloaded, also removes
// the handler again so that it never points into unmapped code.
struct Installer {
    Installer() { install(); }
    ~Installer() {
        if (reinterpret_cast<HMODULE>(&__ImageBase) == GetModuleHandleW(nullptr)) return;
        if (g_veh) RemoveVectoredExceptionHandler(g_veh);
        g_veh = nullptr;
        g_slot_offset = 0;
        if (g_slot != TLS_OUT_OF_INDEXES) TlsFree(g_slot);
        g_slot = TLS_OUT_OF_INDEXES;
    }
} g_installer;

// ------------------------------------------------------------ the guard
bool run(void (*body)(void*), void* ctx, Fault* fault, bool take_all) {
    GuardFrame g;
    g.prev = top_frame();
    g.body_rsp = 0;
    g.handler_chain = gs_read(0);
    g.take_all = take_all;
    g.body = body;
    g.ctx = ctx;
    g.unwinding = false;
    set_top_frame(&g);
    int ok = zor_guard_call(body, ctx, &g);
    set_top_frame(g.prev);
    if (ok) return true;
    gs_write(0, g.handler_chain);
    if (g.fault.code == EXCEPTION_STACK_OVERFLOW) _resetstkoflw();
    if (g.fault.address == zor_guard_abort_at) g.fault.code = kFaultAborted;
    if (fault) *fault = g.fault;
    return false;
}

}  // namespace

bool guarded_internal(void (*body)(void*), void* ctx) { return run(body, ctx, nullptr, true); }

}  // namespace win32::guard

using namespace win32::guard;

bool guarded_run(void (*body)(void*), void* ctx, Fault* fault) {
    return run(body, ctx, fault, false);
}

void guarded_visit(void (*body)(void*), void (*visit)(void* ctx, void* arg), void* arg) {
    for (GuardFrame* g = top_frame(); g; g = g->prev)
        if (g->body == body) visit(g->ctx, arg);
}

}  // namespace zor::os
