// A Windows module that raises and handles structured exceptions itself,
// for the fault guard's tests: faults that the module (or the system on its
// behalf) handles must stay there, software exceptions that nobody handles
// must reach the guard, and a caught fault must leave the caller's
// registers and floating-point state as they were.
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

extern "C" {
void seh_lib_clobber_asm();
std::uint32_t seh_lib_preserved_asm(void (*run)());
}

asm(R"(
    .section .rdata,"dr"
    .p2align 4
.Lseh_lib_pattern:
    .quad 0x7a7a7a7a7a7a7a7a, 0x5b5b5b5b5b5b5b5b
    .text
    .p2align 4
# Overwrites the registers and the floating-point state that a callee must
# keep under the Windows convention (and sets the direction flag), then
# writes through null.
seh_lib_clobber_asm:
    movabsq $0x0bad0bad0bad0b11, %rsi
    movabsq $0x0bad0bad0bad0b12, %rdi
    .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    pcmpeqd %xmm\n, %xmm\n
    .endr
    pushq $0x7f80
    ldmxcsr (%rsp)
    movw $0x007f, (%rsp)
    fldcw (%rsp)
    std
    xorl %eax, %eax
    movl %eax, (%rax)
    ret

# Calls the function in rcx with known values in rsi, rdi and xmm6-15 and
# returns a bit per item that changed: 1 rsi, 2 rdi, 4 << n xmm(6+n),
# 0x1000 MXCSR, 0x2000 x87 control word, 0x4000 direction flag set.
seh_lib_preserved_asm:
    pushq %rsi
    pushq %rdi
    subq $200, %rsp
    .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    movaps %xmm\n, (32 + (\n - 6) * 16)(%rsp)
    .endr
    stmxcsr 192(%rsp)
    fnstcw 196(%rsp)
    movq %rcx, %rax
    movabsq $0x7171717171717171, %rsi
    movabsq $0x7272727272727272, %rdi
    movdqa .Lseh_lib_pattern(%rip), %xmm6
    .irp n, 7, 8, 9, 10, 11, 12, 13, 14, 15
    movdqa %xmm6, %xmm\n
    .endr
    call *%rax
    xorl %r8d, %r8d
    movabsq $0x7171717171717171, %rcx
    cmpq %rcx, %rsi
    je 1f
    orl $1, %r8d
1:  movabsq $0x7272727272727272, %rcx
    cmpq %rcx, %rdi
    je 1f
    orl $2, %r8d
1:
    .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    movdqa %xmm\n, %xmm0
    pcmpeqb .Lseh_lib_pattern(%rip), %xmm0
    pmovmskb %xmm0, %edx
    cmpl $0xffff, %edx
    je 1f
    orl $(4 << (\n - 6)), %r8d
1:
    .endr
    stmxcsr (%rsp)
    movl (%rsp), %edx
    cmpl 192(%rsp), %edx
    je 1f
    orl $0x1000, %r8d
1:  fnstcw (%rsp)
    movzwl (%rsp), %edx
    movzwl 196(%rsp), %ecx
    cmpl %ecx, %edx
    je 1f
    orl $0x2000, %r8d
1:  pushfq
    popq %rdx
    testl $0x400, %edx
    jz 1f
    orl $0x4000, %r8d
    cld
1:
    .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
    movaps (32 + (\n - 6) * 16)(%rsp), %xmm\n
    .endr
    ldmxcsr 192(%rsp)
    fldcw 196(%rsp)
    movl %r8d, %eax
    addq $200, %rsp
    popq %rdi
    popq %rsi
    ret
)");

ZOR_EXPORT void seh_lib_clobber_and_fault() { seh_lib_clobber_asm(); }

// Calls `run` with known values in the registers and floating-point state
// that a callee must keep; the result has a bit for each item that changed.
ZOR_EXPORT std::uint32_t seh_lib_state_kept_across(void (*run)()) { return seh_lib_preserved_asm(run); }
