// Aborting a guarded call from another thread: the thread is suspended,
// checked, and redirected into a fault on top of the module's frames. The
// guard then recovers exactly as from a fault there: frame dispatch reaches
// zor_guard_call's handler, which unwinds the module's frames and runs their
// __finally blocks; frames without unwind data are abandoned by the
// vectored handler.
#include "os/win32/guard_internal.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace zor::os {

namespace {

// The host's own image: a thread there may hold one of the host's locks.
bool in_host_image(DWORD64 rip) {
    MEMORY_BASIC_INFORMATION mbi;
    return VirtualQuery(reinterpret_cast<const void*>(rip), &mbi, sizeof mbi) &&
           mbi.AllocationBase == &__ImageBase;
}

AbortResult redirect(HANDLE t, const std::atomic<std::uint64_t>* running, std::uint64_t expected) {
    if (running->load(std::memory_order_acquire) != expected) return AbortResult::kGone;
    CONTEXT c{};
    c.ContextFlags = CONTEXT_CONTROL | CONTEXT_INTEGER;
    if (!GetThreadContext(t, &c)) return AbortResult::kFailed;
    if (in_host_image(c.Rip)) return AbortResult::kDeferred;
    // As a call from where the thread stands: the fault's caller is the
    // module's code, whose frames dispatch then walks. There is no red zone
    // on x64 Windows, so the word below the stack pointer is free.
    c.Rsp -= 8;
    *reinterpret_cast<DWORD64*>(c.Rsp) = c.Rip;
    c.Rip = reinterpret_cast<DWORD64>(zor_guard_abort_at);
    return SetThreadContext(t, &c) ? AbortResult::kSent : AbortResult::kFailed;
}

}  // namespace

AbortResult guard_abort(std::uint32_t thread_id, const std::atomic<std::uint64_t>* running,
                        std::uint64_t expected) {
    HANDLE t = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_SET_CONTEXT, FALSE,
                          thread_id);
    if (!t) return AbortResult::kFailed;
    AbortResult r = AbortResult::kFailed;
    if (SuspendThread(t) != static_cast<DWORD>(-1)) {
        r = redirect(t, running, expected);
        ResumeThread(t);
    }
    CloseHandle(t);
    return r;
}

}  // namespace zor::os
