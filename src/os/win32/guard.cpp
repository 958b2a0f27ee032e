// The fault guard: runs a module call so that a machine fault inside it is
// caught and the calling thread goes on.
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
#include <windows.h>

#include <malloc.h>

#include <cstddef>
#include <cstdint>

#include "os/os.h"

namespace zor::os {
namespace {

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

}  // namespace
}  // namespace zor::os

extern "C" {
// Calls body(ctx); returns 1, or 0 when a fault was caught.
int zor_guard_call(void (*body)(void*), void* ctx, void* frame);
// Recovery point inside zor_guard_call; entered with rsp at the frame's body.
extern char zor_guard_recover[];
// The return address of the body's call.
extern char zor_guard_return[];
EXCEPTION_DISPOSITION zor_guard_seh(EXCEPTION_RECORD* rec, void* frame, CONTEXT* ctx,
                                    DISPATCHER_CONTEXT* dc);
}

// Frame layout after the prologue (rsp = body_rsp):
//   [rsp+0]   shadow space of the body call
//   [rsp+32]  GuardFrame*             (read by zor_guard_seh)
//   [rsp+40]  MXCSR at entry
//   [rsp+44]  x87 control word at entry
//   [rsp+48]  xmm6 ... [rsp+192] xmm15
//   [rsp+216] r15 r14 r13 r12 rdi rsi rbx rbp, return address
// The body keeps the callee-saved registers itself when it returns; only the
// recovery path reloads them.
asm(R"(
    .text
    .p2align 4
    .globl zor_guard_call
    .def zor_guard_call; .scl 2; .type 32; .endef
    .seh_proc zor_guard_call
zor_guard_call:
    pushq %rbp
    .seh_pushreg %rbp
    pushq %rbx
    .seh_pushreg %rbx
    pushq %rsi
    .seh_pushreg %rsi
    pushq %rdi
    .seh_pushreg %rdi
    pushq %r12
    .seh_pushreg %r12
    pushq %r13
    .seh_pushreg %r13
    pushq %r14
    .seh_pushreg %r14
    pushq %r15
    .seh_pushreg %r15
    subq $216, %rsp
    .seh_stackalloc 216
    movaps %xmm6, 48(%rsp)
    .seh_savexmm %xmm6, 48
    movaps %xmm7, 64(%rsp)
    .seh_savexmm %xmm7, 64
    movaps %xmm8, 80(%rsp)
    .seh_savexmm %xmm8, 80
    movaps %xmm9, 96(%rsp)
    .seh_savexmm %xmm9, 96
    movaps %xmm10, 112(%rsp)
    .seh_savexmm %xmm10, 112
    movaps %xmm11, 128(%rsp)
    .seh_savexmm %xmm11, 128
    movaps %xmm12, 144(%rsp)
    .seh_savexmm %xmm12, 144
    movaps %xmm13, 160(%rsp)
    .seh_savexmm %xmm13, 160
    movaps %xmm14, 176(%rsp)
    .seh_savexmm %xmm14, 176
    movaps %xmm15, 192(%rsp)
    .seh_savexmm %xmm15, 192
    .seh_endprologue
    stmxcsr 40(%rsp)
    fnstcw 44(%rsp)
    movq %r8, 32(%rsp)
    movq %rsp, 8(%r8)
    movq %rcx, %rax
    movq %rdx, %rcx
    callq *%rax
    .globl zor_guard_return
zor_guard_return:
    movl $1, %eax
.Lzor_guard_leave:
    addq $216, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rdi
    popq %rsi
    popq %rbx
    popq %rbp
    retq
    .globl zor_guard_recover
zor_guard_recover:
    cld
    fninit
    fldcw 44(%rsp)
    ldmxcsr 40(%rsp)
    movaps 48(%rsp), %xmm6
    movaps 64(%rsp), %xmm7
    movaps 80(%rsp), %xmm8
    movaps 96(%rsp), %xmm9
    movaps 112(%rsp), %xmm10
    movaps 128(%rsp), %xmm11
    movaps 144(%rsp), %xmm12
    movaps 160(%rsp), %xmm13
    movaps 176(%rsp), %xmm14
    movaps 192(%rsp), %xmm15
    xorl %eax, %eax
    jmp .Lzor_guard_leave
    .seh_handler zor_guard_seh, @except
    .seh_endproc
)");

namespace zor::os {
namespace {

// ------------------------------------------------------------ thread state
// The innermost guard lives in a TLS slot. Slots below 64 sit in the thread
// block itself (TlsSlots at gs:0x1480) and are read with one instruction;
// a later slot goes through TlsGetValue.
DWORD g_slot = TLS_OUT_OF_INDEXES;
std::uint32_t g_slot_offset = 0;  // byte offset in the thread block, 0 = use the API
constexpr std::uint32_t kTlsSlotsOffset = 0x1480;

inline std::uint64_t gs_read(std::uint32_t offset) {
    std::uint64_t v;
    asm volatile("movq %%gs:(%1), %0" : "=r"(v) : "r"(static_cast<std::uint64_t>(offset)) : "memory");
    return v;
}
inline void gs_write(std::uint32_t offset, std::uint64_t v) {
    asm volatile("movq %0, %%gs:(%1)" : : "r"(v), "r"(static_cast<std::uint64_t>(offset)) : "memory");
}

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

// ------------------------------------------------------------ what to take
bool is_machine_fault(DWORD code) {
    switch (code) {
        case EXCEPTION_ACCESS_VIOLATION:
        case EXCEPTION_ILLEGAL_INSTRUCTION:
        case EXCEPTION_PRIV_INSTRUCTION:
        case EXCEPTION_INT_DIVIDE_BY_ZERO:
        case EXCEPTION_INT_OVERFLOW:
        case EXCEPTION_STACK_OVERFLOW:
        case EXCEPTION_IN_PAGE_ERROR:
        case EXCEPTION_DATATYPE_MISALIGNMENT:
        case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
        case EXCEPTION_BREAKPOINT:
        case EXCEPTION_SINGLE_STEP:
        case EXCEPTION_FLT_DENORMAL_OPERAND:
        case EXCEPTION_FLT_DIVIDE_BY_ZERO:
        case EXCEPTION_FLT_INEXACT_RESULT:
        case EXCEPTION_FLT_INVALID_OPERATION:
        case EXCEPTION_FLT_OVERFLOW:
        case EXCEPTION_FLT_STACK_CHECK:
        case EXCEPTION_FLT_UNDERFLOW:
        case STATUS_FLOAT_MULTIPLE_FAULTS:
        case STATUS_FLOAT_MULTIPLE_TRAPS:
            return true;
        default:
            return false;
    }
}

// The system directory with a trailing backslash, lower case.
wchar_t g_sysdir[MAX_PATH + 2];
std::uint32_t g_sysdir_len = 0;

inline wchar_t lower(wchar_t c) { return c >= L'A' && c <= L'Z' ? c + (L'a' - L'A') : c; }

bool in_system_library(const void* addr) {
    MEMORY_BASIC_INFORMATION mbi;
    if (!g_sysdir_len || !VirtualQuery(addr, &mbi, sizeof mbi) || mbi.Type != MEM_IMAGE)
        return false;
    wchar_t path[MAX_PATH + 2];
    DWORD n = GetModuleFileNameW(static_cast<HMODULE>(mbi.AllocationBase), path, MAX_PATH + 1);
    if (n <= g_sysdir_len || n > MAX_PATH) return false;
    for (std::uint32_t i = 0; i < g_sysdir_len; ++i)
        if (lower(path[i]) != g_sysdir[i]) return false;
    return true;
}

// The thread's stack: from its reserved bottom to its base.
inline bool on_thread_stack(std::uint64_t rsp) {
    return rsp >= gs_read(0x1478) && rsp < gs_read(0x08);  // DeallocationStack, StackBase
}

// Walks the frames from the fault up to the guard as frame dispatch will.
// `handled` tells whether a frame in between has an exception handler;
// the result tells whether the walk arrived exactly at the guard's call of
// the body, i.e. whether dispatch can bring the fault to the guard's frame.
bool walk_to_guard(const CONTEXT* fault_ctx, std::uint64_t guard_rsp, bool* handled) {
    *handled = false;
    CONTEXT c = *fault_ctx;
    const std::uint64_t top = gs_read(0x08);
    while (c.Rsp < guard_rsp) {
        const std::uint64_t rsp = c.Rsp;
        DWORD64 image = 0;
        PRUNTIME_FUNCTION fn = RtlLookupFunctionEntry(c.Rip, &image, nullptr);
        if (!fn) {  // a leaf, or code without unwind information
            c.Rip = *reinterpret_cast<const DWORD64*>(c.Rsp);
            c.Rsp += 8;
        } else {
            void* data = nullptr;
            DWORD64 establisher = 0;
            if (RtlVirtualUnwind(UNW_FLAG_EHANDLER, image, c.Rip, fn, &c, &data, &establisher, nullptr))
                *handled = true;
        }
        if (c.Rsp <= rsp || c.Rsp >= top) return false;  // astray
    }
    return c.Rsp == guard_rsp && c.Rip == reinterpret_cast<DWORD64>(zor_guard_return);
}

// Whether somebody below the guard will handle the fault.
bool leave_to_frame_dispatch(const EXCEPTION_RECORD* rec, const CONTEXT* c, std::uint64_t guard_rsp) {
    // Wine's own handler records, chained from the thread block, live on the
    // stack of the code that installed them.
    std::uint64_t chain = gs_read(0);
    if (chain > c->Rsp && chain < guard_rsp) return true;
    bool handled = false;
    bool through = walk_to_guard(c, guard_rsp, &handled);
    // A handler of a system library runs before dispatch gets to frames it
    // cannot walk; one of the module's own (often a mere cleanup) may let
    // the fault pass on and dispatch would then fail: take it now.
    if (in_system_library(rec->ExceptionAddress)) return through || handled;
    return through && handled;
}

// Where a fault happened: the faulting instruction, or for a call or jump
// into nothing (a null or wild function pointer) the return address on the
// stack, which points into the module that made the call.
const void* fault_address(const EXCEPTION_RECORD* rec, const CONTEXT* c) {
    const void* at = rec->ExceptionAddress;
    MEMORY_BASIC_INFORMATION mbi;
    constexpr DWORD kExecutable =
        PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    if (VirtualQuery(at, &mbi, sizeof mbi) && mbi.State == MEM_COMMIT && (mbi.Protect & kExecutable))
        return at;
    return *reinterpret_cast<void* const*>(c->Rsp);
}

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

bool guarded_internal(void (*body)(void*), void* ctx);

void inspect(void* p) {
    auto* in = static_cast<Inspection*>(p);
    if (in->decide) {
        in->leave = leave_to_frame_dispatch(in->rec, in->ctx, in->guard_rsp);
        if (in->leave) return;
    }
    in->address = fault_address(in->rec, in->ctx);
}

void record_fault(GuardFrame* g, const EXCEPTION_RECORD* rec, const void* address) {
    g->fault.code = rec->ExceptionCode;
    g->fault.address = address;
}

void resume_at_recovery(GuardFrame* g, CONTEXT* c) {
    c->Rip = reinterpret_cast<DWORD64>(zor_guard_recover);
    c->Rsp = g->body_rsp;
    c->EFlags &= ~0x400u;  // direction flag
}

LONG CALLBACK guard_veh(EXCEPTION_POINTERS* ep) {
    GuardFrame* g = top_frame();
    if (!g || !g->body_rsp) return EXCEPTION_CONTINUE_SEARCH;
    const EXCEPTION_RECORD* rec = ep->ExceptionRecord;
    CONTEXT* c = ep->ContextRecord;
    if (!is_machine_fault(rec->ExceptionCode)) return EXCEPTION_CONTINUE_SEARCH;

    // A cleanup of the module faulted while its frames were being unwound:
    // the rest of them is abandoned. The first fault stays the one reported.
    if (g->unwinding) {
        resume_at_recovery(g, c);
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    const void* address = rec->ExceptionAddress;
    // After a stack overflow too little stack is left to look further.
    if (!g->take_all && rec->ExceptionCode != EXCEPTION_STACK_OVERFLOW) {
        // Off the thread's stack no frame can be dispatched to: take it.
        Inspection in{rec, c, g->body_rsp, on_thread_stack(c->Rsp), false, address};
        DWORD error = GetLastError();
        if (guarded_internal(inspect, &in)) {
            if (in.leave) {
                SetLastError(error);  // whoever handles it sees the thread as it was
                return EXCEPTION_CONTINUE_SEARCH;
            }
            address = in.address;
        }
    }
    record_fault(g, rec, address);
    resume_at_recovery(g, c);
    return EXCEPTION_CONTINUE_EXECUTION;
}

// ------------------------------------------------------------ installation
PVOID g_veh = nullptr;

void install() {
    static const bool done = [] {
        g_slot = TlsAlloc();
        UINT n = GetSystemDirectoryW(g_sysdir, MAX_PATH);
        if (n > 0 && n < MAX_PATH) {
            for (UINT i = 0; i < n; ++i) g_sysdir[i] = lower(g_sysdir[i]);
            if (g_sysdir[n - 1] != L'\\') g_sysdir[n++] = L'\\';
            g_sysdir[n] = 0;
            g_sysdir_len = n;
        }
        g_veh = AddVectoredExceptionHandler(1, guard_veh);
        if (g_slot != TLS_OUT_OF_INDEXES && g_slot < 64) g_slot_offset = kTlsSlotsOffset + 8 * g_slot;
        return true;
    }();
    (void)done;
}

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
    if (fault) *fault = g.fault;
    return false;
}

bool guarded_internal(void (*body)(void*), void* ctx) { return run(body, ctx, nullptr, true); }

}  // namespace

bool guarded_run(void (*body)(void*), void* ctx, Fault* fault) {
    return run(body, ctx, fault, false);
}

void guarded_visit(void (*body)(void*), void (*visit)(void* ctx, void* arg), void* arg) {
    for (GuardFrame* g = top_frame(); g; g = g->prev)
        if (g->body == body) visit(g->ctx, arg);
}

}  // namespace zor::os

// The handler of zor_guard_call's frame: called during frame dispatch for an
// exception that no frame below claimed.
extern "C" EXCEPTION_DISPOSITION zor_guard_seh(EXCEPTION_RECORD* rec, void* frame, CONTEXT* ctx,
                                               DISPATCHER_CONTEXT* dc) {
    using namespace zor::os;
    if (rec->ExceptionFlags & (EXCEPTION_UNWINDING | EXCEPTION_EXIT_UNWIND))
        return ExceptionContinueSearch;
    GuardFrame* g = *reinterpret_cast<GuardFrame**>(static_cast<char*>(frame) + 32);
    if (g->unwinding) {  // raised by a cleanup during our unwind: abandon the rest
        resume_at_recovery(g, ctx);
        return ExceptionContinueExecution;
    }
    Inspection in{rec, ctx, g->body_rsp, false, false, rec->ExceptionAddress};
    if (rec->ExceptionCode != EXCEPTION_STACK_OVERFLOW) guarded_internal(inspect, &in);
    record_fault(g, rec, in.address);
    // As for __except: the module's frames are unwound to the recovery
    // point, running their __finally blocks and C++ destructors.
    g->unwinding = true;
    RtlUnwindEx(frame, zor_guard_recover, rec, nullptr, dc->ContextRecord, dc->HistoryTable);
    return ExceptionContinueSearch;  // not reached
}
