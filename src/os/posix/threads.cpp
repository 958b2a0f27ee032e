// Threads with Windows-like handles.
//
// A Thread handle is a pointer to a small heap record, tagged with the top
// bit so that handle_close can tell it from a descriptor. The record is
// shared by the thread and the handle (two references); whichever lets go
// last frees it. Threads run detached: ending is signalled through the
// record so that thread_wait can time out, and closing the handle of a
// running thread simply lets it run on, as CloseHandle does.
//
// A thread still runs a few instructions of the trampoline after it has
// signalled its end, and the trampoline may live in a module (a driver) that
// is unloaded as soon as the wait returns. So a successful wait also joins
// the thread; only a handle closed without one detaches it.
//
// Priorities are recorded, and applied only when the Linux host asks for it
// (process_setup.h): raising them needs privileges a test build does not
// have, and a test driver spinning at SCHED_FIFO could starve the machine.
// Applied, a time-critical thread runs SCHED_FIFO, at kFifoHigh in the
// realtime class and at kFifoMiddle otherwise; every other priority is
// SCHED_OTHER.
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include "os/posix/posix_internal.h"
#include "os/posix/process_setup.h"

namespace zor::os {

namespace posix {

namespace {

struct ThreadRecord {
    ThreadProc proc;
    void* arg;
    pthread_t tid{};
    std::mutex mu;
    std::condition_variable ended;
    bool finished = false;
    std::uint32_t exit_code = 0;
    std::atomic<int> refs{2};
    std::atomic<bool> reaped{false};  // joined or detached
    std::atomic<int> priority{kThreadPriorityNormal};
    IoCancel io;
};

thread_local ThreadRecord* t_self = nullptr;
thread_local std::atomic<int> t_priority{kThreadPriorityNormal};  // threads without a record
std::atomic<std::uint32_t> g_priority_class{kNormalPriorityClass};
std::atomic<bool> g_apply{false};

void release(ThreadRecord* r) {
    if (r->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete r;
}

void reap(ThreadRecord* r, bool join) {
    if (r->reaped.exchange(true, std::memory_order_acq_rel)) return;
    if (join) {
        pthread_join(r->tid, nullptr);
    } else {
        pthread_detach(r->tid);
    }
}

ThreadRecord* record(Thread t) {
    if (t == kCurrentThread || !(t & kThreadTag)) return nullptr;
    return reinterpret_cast<ThreadRecord*>(t & ~kThreadTag);
}

void* trampoline(void* p) {
    auto* r = static_cast<ThreadRecord*>(p);
    t_self = r;
    std::uint32_t code = r->proc(r->arg);
    {
        // Holding the lock here also keeps the thread alive while a
        // canceller that took it before us signals it.
        std::lock_guard<std::mutex> lock(r->mu);
        r->finished = true;
        r->exit_code = code;
    }
    r->ended.notify_all();
    t_self = nullptr;
    release(r);
    return nullptr;
}

void cancel_handler(int) {}

bool valid_thread_priority(int p) {
    return (p >= -15 && p <= 15) || p == 0x10000 || p == 0x20000;  // + background modes
}

// The scheduling policy and priority for what `priority` means in the
// current class.
int policy_for(int priority, sched_param* sp) {
    *sp = sched_param{};
    if (priority != kThreadPriorityTimeCritical) return SCHED_OTHER;
    sp->sched_priority = g_priority_class.load() == kRealtimePriorityClass ? kFifoHigh : kFifoMiddle;
    return SCHED_FIFO;
}

bool apply(pthread_t tid, int priority) {
    if (!g_apply.load(std::memory_order_relaxed)) return true;
    sched_param sp;
    int e = pthread_setschedparam(tid, policy_for(priority, &sp), &sp);
    if (e != 0) errno = e;
    return e == 0;
}

bool apply_tid(pid_t tid, int priority) {
    if (!g_apply.load(std::memory_order_relaxed)) return true;
    sched_param sp;
    return sched_setscheduler(tid, policy_for(priority, &sp), &sp) == 0;
}

}  // namespace

void apply_scheduling(bool on) { g_apply.store(on); }

int cancel_signal() {
    static const int sig = [] {
        int s = SIGRTMAX - 3;  // away from the SIGRTMIN+n that programs usually pick
        struct sigaction sa{};
        sa.sa_handler = cancel_handler;  // no SA_RESTART: the wait must end
        sigemptyset(&sa.sa_mask);
        sigaction(s, &sa, nullptr);
        return s;
    }();
    return sig;
}

IoCancel* current_io_cancel() { return t_self ? &t_self->io : nullptr; }

Thread thread_create(ThreadProc proc, void* arg) {
    if (!proc) {
        errno = EINVAL;
        return 0;
    }
    auto* r = new (std::nothrow) ThreadRecord{};
    if (!r) {
        errno = ENOMEM;
        return 0;
    }
    r->proc = proc;
    r->arg = arg;
    cancel_signal();  // installed before any thread can wait for it
    // Windows' default reservation, not glibc's 8 MiB: under mlockall every
    // byte of a stack is locked, and a pipe thread per client must stay cheap.
    constexpr std::size_t kStackBytes = 1u << 20;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kStackBytes);
    int e = pthread_create(&r->tid, &attr, trampoline, r);
    pthread_attr_destroy(&attr);
    if (e != 0) {
        delete r;
        errno = e;
        return 0;
    }
    return kThreadTag | reinterpret_cast<std::uint64_t>(r);
}

// WAIT_OBJECT_0 when the thread has ended, otherwise WAIT_TIMEOUT (also for
// a handle that is no thread). 0xFFFFFFFF waits forever. Waiting for the
// calling thread itself can only time out.
std::uint32_t thread_wait(Thread t, std::uint32_t timeout_ms) {
    constexpr std::uint32_t kInfinite = 0xFFFFFFFFu;
    if (t == kCurrentThread) {
        if (timeout_ms == kInfinite) {
            for (;;) sleep_ms(kInfinite - 1);
        }
        sleep_ms(timeout_ms);
        return kWaitTimeout;
    }
    ThreadRecord* r = record(t);
    if (!r) {
        errno = EBADF;
        return kWaitTimeout;
    }
    std::unique_lock<std::mutex> lock(r->mu);
    auto done = [r] { return r->finished; };
    if (timeout_ms == kInfinite) {
        r->ended.wait(lock, done);
    } else if (!r->ended.wait_for(lock, std::chrono::milliseconds(timeout_ms), done)) {
        return kWaitTimeout;
    }
    lock.unlock();
    reap(r, true);
    return 0;
}

// Like CancelSynchronousIo: only a read that is waiting now is cancelled;
// otherwise the call fails with ENOENT (ERROR_NOT_FOUND).
bool thread_cancel_io(Thread t) {
    ThreadRecord* r = record(t);
    if (!r) {
        errno = t == kCurrentThread ? ENOENT : EBADF;
        return false;
    }
    int sig = cancel_signal();
    std::lock_guard<std::mutex> lock(r->mu);
    int waiting = IoCancel::kWaiting;
    if (r->finished ||
        !r->io.state.compare_exchange_strong(waiting, IoCancel::kCancelled)) {
        errno = ENOENT;
        return false;
    }
    pthread_kill(r->tid, sig);
    return true;
}

bool thread_handle_close(Thread t) {
    ThreadRecord* r = record(t);
    if (!r) {
        errno = EBADF;
        return false;
    }
    reap(r, false);
    release(r);
    return true;
}

bool priority_class_set(std::uint32_t cls) {
    switch (cls) {
        case 0x40: case 0x4000: case 0x20: case 0x8000: case 0x80: case 0x100:
            g_priority_class.store(cls);
            return true;
        case 0x100000: case 0x200000:  // background mode begin/end
            return true;
        default:
            errno = EINVAL;
            return false;
    }
}

bool thread_priority_set(Thread t, int priority) {
    if (!valid_thread_priority(priority)) {
        errno = EINVAL;
        return false;
    }
    if (t == kCurrentThread) {
        (t_self ? t_self->priority : t_priority).store(priority);
        return apply(pthread_self(), priority);
    }
    ThreadRecord* r = record(t);
    if (r) {
        r->priority.store(priority);
        return apply(r->tid, priority);
    }
    // A driver names its thread by the kernel's thread id (32 bits, as the
    // driver interface has them).
    if (t == 0 || t > 0x7fffffffu) {
        errno = EBADF;
        return false;
    }
    return apply_tid(static_cast<pid_t>(t), priority);
}

}  // namespace posix

std::uint32_t priority_class_get() { return posix::g_priority_class.load(); }

Thread current_thread() { return posix::kCurrentThread; }

void process_end_now(std::uint32_t code) { _exit(static_cast<int>(code)); }

// Above kFifoHigh, the realtime class's time-critical threads; without
// applied scheduling (test builds) only recorded, like every priority.
bool thread_priority_top_self() {
    if (!posix::g_apply.load(std::memory_order_relaxed)) return true;
    sched_param sp{};
    sp.sched_priority = posix::kFifoHigh + 1;
    const int e = pthread_setschedparam(pthread_self(), SCHED_FIFO, &sp);
    if (e != 0) errno = e;
    return e == 0;
}

}  // namespace zor::os
