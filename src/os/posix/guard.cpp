// Machine faults of module code, caught per thread.
//
// guarded_run pushes a frame (a jump buffer linked through the caller's own
// stack, so nesting costs nothing) onto a thread-local list; the handlers
// for SIGSEGV, SIGBUS, SIGILL and SIGFPE jump back to the innermost frame of
// the faulting thread. They run on an alternate signal stack so that a stack
// overflow is caught too; each thread gets one at its first guarded call
// (or keeps the one a sanitizer already gave it).
//
// A fault on a thread without a frame goes to whatever handled the signal
// before (a sanitizer's report, a debugger hook) or, when that was the
// default, ends the process the usual way.
//
// The jump buffer does not save the signal mask (no system call per
// guarded call); the handler restores the mask of the interrupted code
// from its context before jumping.
//
// guard_abort sends SIGSEGV to the thread (tgkill): sanitizers deliver a
// SIGSEGV at once even in a loop that never calls out, where they would hold
// back any other signal. The handler tells it from a fault by its si_code
// and takes it only while the request still names the running call.
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <link.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "os/os.h"

namespace zor::os {

namespace {

struct Frame {
    sigjmp_buf jump;
    Frame* prev;
    void (*body)(void*);
    void* ctx;
    std::uint32_t code;
    const void* address;
};

thread_local Frame* t_top = nullptr;

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
struct sigaction g_previous[4];

int slot_of(int sig) {
    for (int i = 0; i < 4; ++i)
        if (kSignals[i] == sig) return i;
    return 0;
}

struct AltStack {
    void* mem = nullptr;
    std::size_t size = 0;
    bool ready = false;
    ~AltStack() {
        if (!mem) return;
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
        munmap(mem, size);
    }
};
thread_local AltStack t_alt;

void ensure_alt_stack() {
    if (t_alt.ready) return;
    t_alt.ready = true;
    stack_t cur{};
    if (sigaltstack(nullptr, &cur) == 0 && !(cur.ss_flags & SS_DISABLE) && cur.ss_size) return;
    long min = sysconf(_SC_SIGSTKSZ);
    std::size_t size = 64 * 1024;
    if (min > 0 && static_cast<std::size_t>(min) * 4 > size) size = static_cast<std::size_t>(min) * 4;
    void* mem = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) return;  // faults are still caught, stack overflows are not
    stack_t ss{};
    ss.ss_sp = mem;
    ss.ss_size = size;
    if (sigaltstack(&ss, nullptr) != 0) {
        munmap(mem, size);
        return;
    }
    t_alt.mem = mem;
    t_alt.size = size;
}

// Where the fault happened; a call through null has no code address, so
// the return address on top of the stack names the caller instead.
const void* fault_address(const ucontext_t* uc) {
    auto pc = static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_RIP]);
    if (pc == 0) {
        auto sp = static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_RSP]);
        if (sp) pc = *reinterpret_cast<const std::uint64_t*>(sp);
    }
    return reinterpret_cast<const void*>(pc);
}

std::atomic<void (*)(void*)> g_crash_hook{nullptr};
std::atomic<void*> g_crash_ctx{nullptr};
std::atomic<bool> g_crashed{false};

// A fault no guard takes ends the process: the crash hook runs first, once.
void pass_on(int sig, siginfo_t* info, void* context) {
    if (auto hook = g_crash_hook.load(std::memory_order_acquire); hook && !g_crashed.exchange(true))
        hook(g_crash_ctx.load(std::memory_order_relaxed));
    const struct sigaction& prev = g_previous[slot_of(sig)];
    if ((prev.sa_flags & SA_SIGINFO) && prev.sa_sigaction) {
        prev.sa_sigaction(sig, info, context);
        return;
    }
    if (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN) {
        prev.sa_handler(sig);
        return;
    }
    // Default action: a machine fault repeats on return and now ends the
    // process; a sent signal is raised again.
    signal(sig, SIG_DFL);
    if (info->si_code <= 0) raise(sig);
}

// The one abort request in flight (there is one watchdog).
enum AbortState { kIdle, kRequested, kTaken, kHostCode, kEnded };
struct AbortRequest {
    std::atomic<const std::atomic<std::uint64_t>*> running{nullptr};
    std::atomic<std::uint64_t> expected{0};
    std::atomic<int> state{kIdle};
};
AbortRequest g_abort;

// The host's own code: the executable segment of the image this guard is
// linked into (the core sits in the same one), found once at installation.
std::uint64_t g_text_lo = 0, g_text_hi = 0;

int find_own_text(dl_phdr_info* info, std::size_t, void*) {
    const auto self = reinterpret_cast<std::uint64_t>(&find_own_text);
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X)) continue;
        const std::uint64_t lo = info->dlpi_addr + ph.p_vaddr;
        if (self >= lo && self < lo + ph.p_memsz) {
            g_text_lo = lo;
            g_text_hi = lo + ph.p_memsz;
            return 1;
        }
    }
    return 0;
}

bool in_host_code(const ucontext_t* uc) {
    const auto pc = static_cast<std::uint64_t>(uc->uc_mcontext.gregs[REG_RIP]);
    return pc >= g_text_lo && pc < g_text_hi;
}

[[noreturn]] void leave_guard(Frame* f, std::uint32_t code, const void* address, ucontext_t* uc) {
    f->code = code;
    f->address = address;
    t_top = f->prev;
    pthread_sigmask(SIG_SETMASK, &uc->uc_sigmask, nullptr);
    siglongjmp(f->jump, 1);
}

bool is_abort_signal(int sig, const siginfo_t* info) {
    return sig == SIGSEGV && info->si_code == SI_TKILL && info->si_pid == getpid() &&
           g_abort.state.load(std::memory_order_acquire) != kIdle;
}

// An abort request arrived: jumps out of the innermost guard, or answers why not.
void on_abort(ucontext_t* uc) {
    if (g_abort.state.load(std::memory_order_acquire) != kRequested) return;  // a late duplicate
    const std::atomic<std::uint64_t>* running = g_abort.running.load(std::memory_order_acquire);
    Frame* f = t_top;
    if (!f || !running ||
        running->load(std::memory_order_acquire) != g_abort.expected.load(std::memory_order_relaxed)) {
        g_abort.state.store(kEnded, std::memory_order_release);
        return;
    }
    if (in_host_code(uc)) {
        g_abort.state.store(kHostCode, std::memory_order_release);
        return;
    }
    g_abort.state.store(kTaken, std::memory_order_release);
    leave_guard(f, kFaultAborted, fault_address(uc), uc);
}

void on_fault(int sig, siginfo_t* info, void* context) {
    auto* uc = static_cast<ucontext_t*>(context);
    if (is_abort_signal(sig, info)) return on_abort(uc);
    Frame* f = t_top;
    if (!f || info->si_code <= 0) {  // no guard, or sent by kill(): not a fault here
        pass_on(sig, info, context);
        return;
    }
    leave_guard(f, static_cast<std::uint32_t>(sig), fault_address(uc), uc);
}

void install() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction sa{};
        sa.sa_sigaction = on_fault;
        sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigemptyset(&sa.sa_mask);
        for (int i = 0; i < 4; ++i) sigaction(kSignals[i], &sa, &g_previous[i]);
        dl_iterate_phdr(find_own_text, nullptr);
    });
}

}  // namespace

void set_crash_hook(void (*hook)(void*), void* ctx) {
    install();  // the guard's handler is the one that sees unguarded faults
    g_crash_ctx.store(ctx, std::memory_order_relaxed);
    g_crash_hook.store(hook, std::memory_order_release);
}

bool guarded_run(void (*body)(void*), void* ctx, Fault* fault) {
    install();
    ensure_alt_stack();
    Frame f;
    f.prev = t_top;
    f.body = body;
    f.ctx = ctx;
    if (sigsetjmp(f.jump, 0) == 0) {
        t_top = &f;
        body(ctx);
        t_top = f.prev;
        return true;
    }
    if (fault) {
        fault->code = f.code;
        fault->address = f.address;
    }
    return false;
}

AbortResult guard_abort(std::uint32_t thread_id, const std::atomic<std::uint64_t>* running,
                        std::uint64_t expected) {
    install();
    g_abort.running.store(running, std::memory_order_relaxed);
    g_abort.expected.store(expected, std::memory_order_relaxed);
    g_abort.state.store(kRequested, std::memory_order_release);
    if (syscall(SYS_tgkill, getpid(), static_cast<pid_t>(thread_id), SIGSEGV) != 0) {
        g_abort.state.store(kIdle, std::memory_order_release);
        return AbortResult::kFailed;
    }
    // A running or interruptibly waiting thread answers within microseconds.
    for (int i = 0; i < 200 && g_abort.state.load(std::memory_order_acquire) == kRequested; ++i)
        usleep(50);
    switch (g_abort.state.load(std::memory_order_acquire)) {
        case kHostCode: return AbortResult::kDeferred;
        case kEnded: return AbortResult::kGone;
        default: return AbortResult::kSent;  // taken, or pending until the thread runs
    }
}

void guarded_visit(void (*body)(void*), void (*visit)(void* ctx, void* arg), void* arg) {
    for (Frame* f = t_top; f; f = f->prev)
        if (f->body == body) visit(f->ctx, arg);
}

}  // namespace zor::os
