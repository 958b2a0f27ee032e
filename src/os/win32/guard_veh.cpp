// The guard's vectored handler: takes the machine faults that frame
// dispatch could not bring to a guard's frame, and leaves the others to it.
#include "os/win32/guard_internal.h"

namespace zor::os::win32::guard {
namespace {

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

}  // namespace

// Notes the system directory, for in_system_library.
void note_system_dir() {
    UINT n = GetSystemDirectoryW(g_sysdir, MAX_PATH);
    if (n > 0 && n < MAX_PATH) {
        for (UINT i = 0; i < n; ++i) g_sysdir[i] = lower(g_sysdir[i]);
        if (g_sysdir[n - 1] != L'\\') g_sysdir[n++] = L'\\';
        g_sysdir[n] = 0;
        g_sysdir_len = n;
    }
}

namespace {

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

constexpr std::uint16_t kJumpToSelf = 0xFEEB;  // jmp . (EB FE, little-endian)

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
        // Wine's unwinder loops for ever on a jump to itself (it follows
        // jumps looking for an epilogue): such a frame is not walked, and
        // the fault is taken without frame dispatch.
        if (*reinterpret_cast<const std::uint16_t*>(c.Rip) == kJumpToSelf) return false;
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

}  // namespace

void inspect(void* p) {
    auto* in = static_cast<Inspection*>(p);
    if (in->decide) {
        in->leave = leave_to_frame_dispatch(in->rec, in->ctx, in->guard_rsp);
        if (in->leave) return;
    }
    in->address = fault_address(in->rec, in->ctx);
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

}  // namespace zor::os::win32::guard
