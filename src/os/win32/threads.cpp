// Threads and priorities.
#include "os/win32/win32_internal.h"

namespace zor::os {

// GetCurrentThread's pseudo handle: it names whichever thread uses it, needs
// no closing (closing it does nothing) and is accepted by SetThreadPriority.
// It is meant for the calling thread's own use, never to be handed to
// another thread.
Thread current_thread() { return win32::U(GetCurrentThread()); }

void process_end_now(std::uint32_t code) {
    TerminateProcess(GetCurrentProcess(), code);
    for (;;) Sleep(INFINITE);  // termination completes asynchronously
}

std::uint32_t priority_class_get() { return GetPriorityClass(GetCurrentProcess()); }

bool thread_priority_top_self() {
    return SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL) != 0;
}

namespace win32 {

// A ThreadProc has the thread routine's signature on x64 (one pointer in,
// 32 bits out), so it is started directly: nothing to allocate.
Thread thread_create(ThreadProc proc, void* arg) {
    if (!proc) return 0;
    auto start = reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<void*>(proc));
    return U(CreateThread(nullptr, 0, start, arg, 0, nullptr));
}

std::uint32_t thread_wait(Thread t, std::uint32_t timeout_ms) {
    return WaitForSingleObject(H(t), timeout_ms) == WAIT_OBJECT_0 ? 0 : kWaitTimeout;
}

// Ends a ReadFile that the thread is blocked in with ERROR_OPERATION_ABORTED
// (verified under Wine 8 on anonymous pipes, also on ends duplicated from
// another process). Fails with ERROR_NOT_FOUND when the thread is not in a
// synchronous call: a cancel never waits for the next read.
bool thread_cancel_io(Thread t) { return CancelSynchronousIo(H(t)) != 0; }

bool priority_class_set(std::uint32_t cls) { return SetPriorityClass(GetCurrentProcess(), cls) != 0; }

bool thread_priority_set(Thread t, int priority) { return SetThreadPriority(H(t), priority) != 0; }

}  // namespace win32

}  // namespace zor::os
