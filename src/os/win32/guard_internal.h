// The fault guard: runs a module call so that a machine fault inside it is
// caught and the calling thread goes on. This header holds what its parts
// share: guard_frame.cpp (zor_guard_call's frame and its handler),
// guard_veh.cpp (the vectored handler and what it takes) and guard.cpp
// (the thread's guards, installation, guarded_run and guarded_visit).
//
// Two mechanisms work together:
//
// 1. zor_guard_call (assembly below) calls the body from a frame that has a
//    structured exception handler in its unwind information. Whatever the
//    normal frame-by-frame dispatch brings up to that frame is caught there:
//    a fault that no handler below claimed, a fault raised inside a system
//    library on the module's behalf, a software exception (RaiseException,
//    a C++ exception leaving the module), noncontinuable ones included.
//
// 2. A vectored handler, which runs before any frame is looked at, takes the
//    machine faults that frame dispatch could not bring to our frame: in
//    code without unwind information, on a stack of the module's own, and
//    stack overflows (too little stack is left to walk). It walks the
//    frames from the fault the way dispatch does and leaves the fault to
//    dispatch when somebody below the guard may handle it and dispatch can
//    get there: a frame with an exception handler (the module's own __try,
//    or any frame the language runtime would clean up) on a walk that
//    arrives exactly at the guard; or a fault inside a system library
//    (they probe pointers under their own handlers: IsBadReadPtr), whose
//    handler runs before dispatch meets any frame it cannot walk. Under
//    Wine, system code also guards itself with handler records chained from
//    the thread block; a record between the fault and the guard counts as
//    such a handler. Taking those faults would steal them from their owners.
//
// A fault that reaches the guard's frame through frame dispatch is handled
// as __except handles it: RtlUnwindEx unwinds the module's frames to
// zor_guard_recover, running their termination handlers (__finally) and C++
// cleanups. The vectored handler leaves every fault to frame dispatch where
// a frame in between has a handler and the walk arrives at the guard, so
// only frames with nothing to clean up, or that cannot be unwound (no unwind
// data, a private stack, a stack overflow), are abandoned by resuming at
// zor_guard_recover directly. A fault raised by a cleanup during the unwind
// abandons the rest of the frames the same way. The recovery
// restores what the caller may rely on as it was at entry: callee-saved
// registers, MXCSR, the x87 control word, the direction flag and the thread
// block's handler chain, and re-arms the stack guard page after an overflow.
//
// The innermost guard of a thread is found through a TLS slot read straight
// from the thread block; nothing is allocated per call. The handler's own
// look at the stack runs under an internal guard, so that a wild stack
// cannot make it fault.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

#include "os/os.h"

namespace zor::os::win32::guard {

struct GuardFrame {
    GuardFrame* prev;             // the enclosing guard of this thread
    std::uint64_t body_rsp;       // stack pointer in zor_guard_call's body (set there)
    std::uint64_t handler_chain;  // the thread block's handler chain at entry
    Fault fault;                  // the caught fault
    bool take_all;                // internal guard: takes every machine fault
    void (*body)(void*);          // what runs under this guard
    void* ctx;
    bool unwinding;               // the module's frames are being unwound
};
static_assert(offsetof(GuardFrame, body_rsp) == 8, "used by the assembly");

}  // namespace zor::os::win32::guard

extern "C" {
// Calls body(ctx); returns 1, or 0 when a fault was caught.
int zor_guard_call(void (*body)(void*), void* ctx, void* frame);
// Recovery point inside zor_guard_call; entered with rsp at the frame's body.
extern char zor_guard_recover[];
// The return address of the body's call.
extern char zor_guard_return[];
// Where guard_abort sends a thread: a fault with no unwind data of its own,
// entered as if called from where the thread was, so that every frame
// below is walked and unwound as for a fault there.
extern char zor_guard_abort_at[];
EXCEPTION_DISPOSITION zor_guard_seh(EXCEPTION_RECORD* rec, void* frame, CONTEXT* ctx,
                                    DISPATCHER_CONTEXT* dc);
}

namespace zor::os::win32::guard {

// ------------------------------------------------------------ thread state
// The innermost guard lives in a TLS slot. Slots below 64 sit in the thread
// block itself (TlsSlots at gs:0x1480) and are read with one instruction;
// a later slot goes through TlsGetValue.
extern DWORD g_slot;
extern std::uint32_t g_slot_offset;  // byte offset in the thread block, 0 = use the API

inline std::uint64_t gs_read(std::uint32_t offset) {
    std::uint64_t v;
    asm volatile("movq %%gs:(%1), %0" : "=r"(v) : "r"(static_cast<std::uint64_t>(offset)) : "memory");
    return v;
}
inline void gs_write(std::uint32_t offset, std::uint64_t v) {
    asm volatile("movq %0, %%gs:(%1)" : : "r"(v), "r"(static_cast<std::uint64_t>(offset)) : "memory");
}

// Sets up the TLS slot and the vectored handler, once.
void install();

inline GuardFrame* top_frame() {
    if (std::uint32_t off = g_slot_offset) return reinterpret_cast<GuardFrame*>(gs_read(off));
    if (g_slot == TLS_OUT_OF_INDEXES) return nullptr;
    DWORD error = GetLastError();  // the TLS calls clear it
    void* f = TlsGetValue(g_slot);
    SetLastError(error);
    return static_cast<GuardFrame*>(f);
}
inline void set_top_frame(GuardFrame* f) {
    if (std::uint32_t off = g_slot_offset) {
        gs_write(off, reinterpret_cast<std::uint64_t>(f));
        return;
    }
    install();
    DWORD error = GetLastError();  // the TLS calls clear it
    TlsSetValue(g_slot, f);
    SetLastError(error);
}

// ------------------------------------------------------------ shared by both handlers
// Decision and fault record, worked out under an internal guard: a bad
// stack word or a walk through garbage faults there and not in the handler.
struct Inspection {
    const EXCEPTION_RECORD* rec;
    const CONTEXT* ctx;
    std::uint64_t guard_rsp;
    bool decide;       // whether to decide between taking and leaving
    bool leave;        // result: leave the fault to frame dispatch
    const void* address;
};

// Fills the Inspection at p; run under guarded_internal.
void inspect(void* p);
// Runs body(ctx) under an internal guard, which takes every machine fault.
bool guarded_internal(void (*body)(void*), void* ctx);

inline void record_fault(GuardFrame* g, const EXCEPTION_RECORD* rec, const void* address) {
    g->fault.code = rec->ExceptionCode;
    g->fault.address = address;
}

inline void resume_at_recovery(GuardFrame* g, CONTEXT* c) {
    c->Rip = reinterpret_cast<DWORD64>(zor_guard_recover);
    c->Rsp = g->body_rsp;
    c->EFlags &= ~0x400u;  // direction flag
}

// The vectored handler (guard_veh.cpp) and what it needs set up first.
void note_system_dir();
LONG CALLBACK guard_veh(EXCEPTION_POINTERS* ep);

}  // namespace zor::os::win32::guard
