// zor_guard_call: the frame that runs a guarded body, with a structured
// exception handler in its unwind information, and that handler, which
// catches what frame dispatch brings to it and unwinds the module's frames.
#include "os/win32/guard_internal.h"

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

    .p2align 4
    .globl zor_guard_abort_at
zor_guard_abort_at:
    ud2
)");

// The handler of zor_guard_call's frame: called during frame dispatch for an
// exception that no frame below claimed.
extern "C" EXCEPTION_DISPOSITION zor_guard_seh(EXCEPTION_RECORD* rec, void* frame, CONTEXT* ctx,
                                               DISPATCHER_CONTEXT* dc) {
    using namespace zor::os::win32::guard;
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
