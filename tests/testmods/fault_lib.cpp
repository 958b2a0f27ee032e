// A module that faults in the ways real driver code does, for the fault
// guard's tests. It is built for both platforms: the hand-written functions
// below are plain x86-64 assembly that both assemblers accept, and none of
// them carries unwind information, on purpose.
#include <cstdint>
#include <cstring>

#include "zor/zor_module.h"

// Calling convention note: the assembly helpers take their arguments in rcx
// and r8, which both conventions use: C++ callers pass (a, _, b, a, b), so
// that a is the first argument under Windows x64 and the fourth under
// System V (rcx), and b the third and the fifth (r8).
extern "C" {
void fault_lib_no_unwind_asm();
void fault_lib_private_stack_asm(void*, void*, void*, void*);
void fault_lib_calls_compiled_asm(void (*)(volatile int*), void*, volatile int*,
                                  void (*)(volatile int*), volatile int*);
void fault_lib_clobber_asm();
std::uint32_t fault_lib_preserved_asm(void (*)(), void (*)(), void (*)(), void (*)());
}

asm(R"(
    .text
    .p2align 4
# Pushes words that are not return addresses, moves the stack pointer and
# then writes through null: a frame-by-frame walk of this stack cannot know
# where the caller's frame is.
fault_lib_no_unwind_asm:
    pushq %rbx
    pushq $0x1234
    pushq $-1
    subq $0x200, %rsp
    xorl %eax, %eax
    movl %eax, (%rax)
    addq $0x210, %rsp
    popq %rbx
    ret

# Calls the function in rcx with the argument in r8 (passed in rcx and rdi,
# so that either convention finds it), from below words that are not
# return addresses.
fault_lib_calls_compiled_asm:
    pushq %rdi
    pushq $-1
    pushq $0x1234
    subq $32, %rsp
    movq %rcx, %rax
    movq %r8, %rcx
    movq %r8, %rdi
    call *%rax
    addq $48, %rsp
    popq %rdi
    ret

# Faults while its stack pointer is in a buffer of the caller's (top in
# rcx), outside the thread's stack, as a coroutine or a stack switch in
# driver code would.
fault_lib_private_stack_asm:
    movq %rcx, %rax
    andq $-16, %rax
    movq %rsp, %rdx
    movq %rax, %rsp
    pushq %rdx
    xorl %eax, %eax
    movl (%rax), %eax
    popq %rsp
    ret

# Overwrites every register that both calling conventions make the callee
# keep, then faults.
fault_lib_clobber_asm:
    .irp r, rbx, rbp, r12, r13, r14, r15
    movabsq $0x0bad0bad0bad0b01, %\r
    .endr
    xorl %eax, %eax
    movl %eax, (%rax)
    ret

# Sets bit `bit` of eax unless register `reg` still holds `value`.
.macro kept_check reg, value, bit
    movabsq $\value, %rcx
    cmpq %rcx, %\reg
    je 1f
    orl $\bit, %eax
1:
.endm

# Loads known values into the callee-kept registers, calls the function in
# rcx and returns a bit per register whose value did not survive.
fault_lib_preserved_asm:
    .irp r, rbx, rbp, r12, r13, r14, r15
    pushq %\r
    .endr
    subq $40, %rsp
    movq %rcx, %rax
    movabsq $0x1111111111111111, %rbx
    movabsq $0x2222222222222222, %rbp
    movabsq $0x3333333333333333, %r12
    movabsq $0x4444444444444444, %r13
    movabsq $0x5555555555555555, %r14
    movabsq $0x6666666666666666, %r15
    call *%rax
    xorl %eax, %eax
    kept_check rbx, 0x1111111111111111, 1
    kept_check rbp, 0x2222222222222222, 2
    kept_check r12, 0x3333333333333333, 4
    kept_check r13, 0x4444444444444444, 8
    kept_check r14, 0x5555555555555555, 16
    kept_check r15, 0x6666666666666666, 32
    addq $40, %rsp
    .irp r, r15, r14, r13, r12, rbp, rbx
    popq %\r
    .endr
    ret
)");

namespace {

volatile int g_sink;

// Not inlined and not a tail call, so that every level is a real frame.
__attribute__((noinline)) int descend(int depth, volatile int* target) {
    if (depth == 0) return *target;
    int r = descend(depth - 1, target);
    g_sink = r;
    return r + 1;
}

struct Cleanup {
    ~Cleanup() { g_sink = 0; }
};

void nothing() {}
// A call the compiler cannot see through, so it may throw.
void (*volatile g_hook)() = nothing;

}  // namespace

ZOR_EXPORT void fault_lib_no_unwind() { fault_lib_no_unwind_asm(); }

// Faults with the stack pointer near the end of `stack` (`size` bytes).
ZOR_EXPORT void fault_lib_private_stack(void* stack, std::size_t size) {
    void* top = static_cast<char*>(stack) + size;
    fault_lib_private_stack_asm(top, top, top, top);
}

ZOR_EXPORT void fault_lib_with_cleanup(volatile int* target);

// Hand-written code calls compiled code with a cleanup frame, which faults.
ZOR_EXPORT void fault_lib_asm_calls_cleanup(volatile int* target) {
    fault_lib_calls_compiled_asm(fault_lib_with_cleanup, nullptr, target, fault_lib_with_cleanup, target);
}

// Reads through `target` from `depth` frames down.
ZOR_EXPORT int fault_lib_deep(int depth, volatile int* target) { return descend(depth, target); }

// A frame that needs a cleanup when unwound (it has an exception handler
// of the language runtime) around the faulting write.
ZOR_EXPORT void fault_lib_with_cleanup(volatile int* target) {
    Cleanup c;
    g_hook();
    *target = 1;
    g_hook();
}

// Copies through the C library: the fault is raised inside it, on this
// module's behalf.
ZOR_EXPORT void fault_lib_copy_from(const void* src) {
    char buf[64];
    volatile std::size_t n = sizeof buf;
    std::memcpy(buf, src, n);
    g_sink = buf[0];
}

ZOR_EXPORT void fault_lib_clobber_and_fault() { fault_lib_clobber_asm(); }

// Calls `run` with known values in the registers a callee must keep; the
// result has a bit set for each one that changed (rbx, rbp, r12 ... r15).
ZOR_EXPORT std::uint32_t fault_lib_registers_kept_across(void (*run)()) {
    return fault_lib_preserved_asm(run, run, run, run);
}
