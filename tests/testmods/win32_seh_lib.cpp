// A Windows module that raises and handles structured exceptions itself,
// for the fault guard's tests: faults that the module (or the system on its
// behalf) handles must stay there, and software exceptions that nobody
// handles must reach the guard.
#include <windows.h>

#include <excpt.h>

#include <cstdint>

#include "os/os.h"
#include "zor/zor_module.h"

namespace {
volatile LONG g_filter_calls = 0;
volatile LONG g_filter_answer = EXCEPTION_EXECUTE_HANDLER;
}  // namespace

// The filter of the module's own handler (called by the C runtime's
// language handler, hence unmangled).
extern "C" __attribute__((used)) LONG seh_lib_filter(EXCEPTION_POINTERS*, void*) {
    InterlockedIncrement(&g_filter_calls);
    return g_filter_answer;
}

// What the module's handler answers from now on: EXCEPTION_EXECUTE_HANDLER
// (1) takes the fault, EXCEPTION_CONTINUE_SEARCH (0) passes it on.
ZOR_EXPORT void seh_lib_set_answer(LONG answer) { g_filter_answer = answer; }
ZOR_EXPORT LONG seh_lib_filter_calls() { return g_filter_calls; }

// Reads *p under the module's own handler: the value, or -1 when its
// handler took a fault.
ZOR_EXPORT int seh_lib_read_own(volatile int* p) {
    volatile int result = -1;
    __try1(seh_lib_filter)
        result = *p;
    __except1
    return result;
}

// The system probes the pointer under its own handler.
ZOR_EXPORT BOOL seh_lib_probe(const void* p) { return IsBadReadPtr(p, 4); }

ZOR_EXPORT void seh_lib_raise(DWORD code, DWORD flags) { RaiseException(code, flags, 0, nullptr); }

// A C++ exception that nobody in the module catches.
ZOR_EXPORT void seh_lib_throw() { throw 42; }

// A fault caught by the guard of this module's own copy of the OS layer:
// the fault's code, or 0 when none was caught.
ZOR_EXPORT std::uint32_t seh_lib_guarded_fault() {
    zor::os::Fault f{};
    bool ok = zor::os::guarded_run([](void*) { *static_cast<volatile int*>(nullptr) = 1; }, nullptr, &f);
    return ok ? 0 : f.code;
}
