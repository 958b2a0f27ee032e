// The per-event path allocates nothing, takes no lock and makes no system
// call. Proven on the real host: this program (built without sanitizers, so
// that it can stand in for the C library) counts, on the dispatch thread
// only, every malloc/calloc/realloc/free, operator new/delete, every pthread
// mutex, rwlock and condition variable call (CCritSec is a pthread mutex
// underneath), and every system call, trapped by a seccomp filter that
// applies to that thread alone. Clock reads go through the vDSO and make no
// system call. Not counted: the one-time report of locked modules at event
// 6000, which walks the address space by design, and caught faults (none
// happen here). The one system call that a run may make is the futex wake of
// an ExecISRFunc caller that said it sleeps; it is counted apart, and never
// made while nobody waits.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <thread>

#include "common/test_host.h"
#include "modules/deferred_list_writer.h"

namespace {

std::atomic<bool> g_armed{false};
thread_local bool t_watched = false;
std::atomic<unsigned> g_allocs{0}, g_locks{0}, g_syscalls{0}, g_wakes{0};

inline void Note(std::atomic<unsigned>& n) {
    if (t_watched && g_armed.load(std::memory_order_relaxed)) n.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t n) { Note(g_allocs); return __libc_malloc(n); }
void* calloc(std::size_t k, std::size_t n) { Note(g_allocs); return __libc_calloc(k, n); }
void* realloc(void* p, std::size_t n) { Note(g_allocs); return __libc_realloc(p, n); }
void free(void* p) { if (p) Note(g_allocs); __libc_free(p); }

// Each lock call counts, then goes on to the C library's own.
#define ZOR_FORWARD(name, params, args)                                       \
    int name params {                                                         \
        Note(g_locks);                                                        \
        static int (*real) params;                                            \
        if (!real) real = reinterpret_cast<int (*) params>(dlsym(RTLD_NEXT, #name)); \
        return real args;                                                     \
    }
ZOR_FORWARD(pthread_mutex_lock, (pthread_mutex_t * m), (m))
ZOR_FORWARD(pthread_mutex_trylock, (pthread_mutex_t * m), (m))
ZOR_FORWARD(pthread_mutex_timedlock, (pthread_mutex_t * m, const timespec* t), (m, t))
ZOR_FORWARD(pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
ZOR_FORWARD(pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
ZOR_FORWARD(pthread_rwlock_tryrdlock, (pthread_rwlock_t * l), (l))
ZOR_FORWARD(pthread_rwlock_trywrlock, (pthread_rwlock_t * l), (l))
ZOR_FORWARD(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
ZOR_FORWARD(pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t* m, const timespec* t), (c, m, t))
ZOR_FORWARD(pthread_cond_signal, (pthread_cond_t * c), (c))
ZOR_FORWARD(pthread_cond_broadcast, (pthread_cond_t * c), (c))

// The only system call instruction the filter lets through: the trap
// handler passes every trapped call on through it.
long zor_pass_syscall(long nr, long a, long b, long c, long d, long e, long f);
extern char zor_pass_syscall_end[];
}

void* operator new(std::size_t n) { Note(g_allocs); return __libc_malloc(n ? n : 1); }
void* operator new[](std::size_t n) { Note(g_allocs); return __libc_malloc(n ? n : 1); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { Note(g_allocs); return __libc_malloc(n ? n : 1); }
void operator delete(void* p) noexcept { free(p); }
void operator delete[](void* p) noexcept { free(p); }
void operator delete(void* p, std::size_t) noexcept { free(p); }
void operator delete[](void* p, std::size_t) noexcept { free(p); }

asm(R"(.text
.globl zor_pass_syscall
zor_pass_syscall:
    mov %rdi, %rax
    mov %rsi, %rdi
    mov %rdx, %rsi
    mov %rcx, %rdx
    mov %r8, %r10
    mov %r9, %r8
    mov 8(%rsp), %r9
    syscall
.globl zor_pass_syscall_end
zor_pass_syscall_end:
    ret
)");

namespace zor {
namespace {

void OnSigsys(int, siginfo_t*, void* context) {
    greg_t* r = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    Note(r[REG_RAX] == SYS_futex ? g_wakes : g_syscalls);
    r[REG_RAX] = zor_pass_syscall(r[REG_RAX], r[REG_RDI], r[REG_RSI], r[REG_RDX], r[REG_R10],
                                  r[REG_R8], r[REG_R9]);
}

// Traps every system call of the calling thread, except the signal return
// and those made from zor_pass_syscall.
bool TrapSyscallsOnThisThread() {
    const auto ip = reinterpret_cast<std::uint64_t>(zor_pass_syscall_end);
    const std::uint32_t lo = static_cast<std::uint32_t>(ip), hi = static_cast<std::uint32_t>(ip >> 32);
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 5, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, instruction_pointer)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, lo, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, instruction_pointer) + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, hi, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog prog{static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
    struct sigaction sa {};
    sa.sa_sigaction = OnSigsys;
    sa.sa_flags = SA_SIGINFO;
    return sigaction(SIGSYS, &sa, nullptr) == 0 && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &prog) == 0;
}

TEST(EventPath, NoAllocationLockOrSystemCall) {
    test::TestHost th(true);
    Host& h = th.host();
    ASSERT_TRUE(h.stats.Publish());  // the live figures are kept on the event path too
    h.watchdog.SetBudget(1000);      // so is the watchdog's record of the running call
    h.watchdog.Start();
    ASSERT_TRUE(h.watchdog.Running());
    ASSERT_TRUE(h.recorder.Publish(ZOR_TRACE_DEFAULT_EVENTS));  // and the flight recorder
    ASSERT_NE(0u, h.shm.SysMem(zor::os::process_peer(), os::current_process_id(), ZOR_SSA_QUEUE + 4096));
    const std::uint32_t a = test::RegisterIsr(h, "test_isr");
    const std::uint32_t b = test::RegisterIsr(h, "test_isr_b");
    ASSERT_NE(0u, test::RegisterIsr(h, "test_isr_c"));
    h.dispatcher.BlockISR(b, 1);
    test::TestIsr slow("test_isr_c");
    auto setBusy = [&](std::uint32_t code, std::uint32_t us) { slow.SetDelay(code, us); };

    constexpr std::uint32_t kEvents = 100000;
    std::atomic<std::uint32_t> events{0}, refused{0};
    std::atomic<bool> done{false}, trapped{false};
    std::thread dispatch([&] {
        std::uint32_t seq = 1;
        for (int i = 0; i < 100; ++i) h.dispatcher.OnInterrupt(seq++);  // first-call setup
        t_watched = true;
        trapped = TrapSyscallsOnThisThread();
        for (std::uint32_t n = 0; n < kEvents || !done.load(std::memory_order_relaxed); ++n) {
            if (n == 2000) setBusy(ZOR_FN_INTERRUPT, 3000);   // a slow-call line
            if (n == 2001) setBusy(ZOR_FN_INTERRUPT, 16000);  // and a long event
            if (n == 2002) setBusy(ZOR_FN_INTERRUPT, 0);
            if (n == 3000) ++seq;                             // a sequence gap
            g_armed = h.dispatcher.EventCounter() != 6000;    // the locked-modules report
            if (h.dispatcher.OnInterrupt(seq++) != 0) refused.fetch_add(1);
            g_armed = false;
            events.store(n + 1, std::memory_order_relaxed);
        }
        t_watched = false;
    });
    auto waitFor = [&](auto ready) {
        while (!ready()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    };

    waitFor([&] { return events.load() > 7000; });
    // Deferred calls from this thread without waiting: no wake at all.
    unsigned char* area = h.shm.Area();
    for (std::uint32_t i = 0; i < 100; ++i) {
        std::uint32_t data = i;
        TdlTicket t;
        ASSERT_EQ(TdlStatus::kQueued, TdlAppend(area, h.shm.AreaSize(), os::current_process_id(), a,
                                                7, &data, 4, false, &t, 1000));
    }
    waitFor([&] { return TdlWord(area, ZOR_SSA_ENTRY_COUNT).load() == 0; });
    const unsigned wakesBeforeWaiting = g_wakes.load();
    // Deferred calls from this thread, with and without result slots.
    for (std::uint32_t i = 0; i < 200; ++i) {
        std::uint32_t data = i, result = 0;
        TdlTicket t;
        ASSERT_EQ(TdlStatus::kQueued, TdlAppend(area, h.shm.AreaSize(), os::current_process_id(), a,
                                                7, &data, 4, i % 2 == 0, &t, 1000));
        if (i % 2 == 0) {
            EXPECT_TRUE(TdlWait(area, h.shm.AreaSize(), t, 1000, 1000, &result));
        }
    }
    // Pause and resume while events keep coming.
    h.dispatcher.PauseISR(true);
    waitFor([&] { return refused.load() > 100; });
    h.dispatcher.PauseISR(false);
    // A full log queue: the writer held, every event logs that SyncTDL is taken.
    th.log().log().HoldWriter(true);
    TdlWord(area, ZOR_SSA_SYNC_TDL).store(1);
    waitFor([&] { return th.log().log().Dropped() > 100; });
    TdlWord(area, ZOR_SSA_SYNC_TDL).store(0);
    th.log().log().HoldWriter(false);
    done = true;
    dispatch.join();

    ASSERT_TRUE(trapped) << "seccomp filter not installed";
    EXPECT_GE(events.load(), kEvents);
    EXPECT_TRUE(th.log().ContainsSubstr("ZOR: test_isr_c"));
    EXPECT_TRUE(th.log().ContainsSubstr("ZOR: total ISR used 1"));
    EXPECT_TRUE(th.log().ContainsSubstr("ZOR: Time discontinuous!"));
    EXPECT_TRUE(th.log().ContainsSubstr("ZOR TOTAL"));
    EXPECT_EQ(0u, g_allocs.load()) << "heap calls on the dispatch thread";
    EXPECT_EQ(0u, g_locks.load()) << "lock calls on the dispatch thread";
    EXPECT_EQ(0u, g_syscalls.load()) << "system calls on the dispatch thread";
    EXPECT_EQ(0u, wakesBeforeWaiting) << "futex wakes while nobody waited";
    EXPECT_LE(g_wakes.load(), 100u) << "at most one wake per waited call";
}

}  // namespace
}  // namespace zor
