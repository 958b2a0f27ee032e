// Time and identity queries: plain system calls, nothing to fail.
//
// now_ms() is read several times per interrupt event: where the processor's
// time-stamp counter is invariant it reads that (one instruction, see
// tsc_clock.h), anchored to CLOCK_MONOTONIC at the first call, so that its
// figures agree with the drivers' CLOCK_MONOTONIC deadlines; else
// clock_gettime (a vDSO call). ZOR_CLOCK=clock_gettime chooses the latter.
#include <cerrno>
#include <csignal>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "os/os.h"
#include "os/tsc_clock.h"

namespace zor::os {

namespace {
timespec monotonic(clockid_t clock = CLOCK_MONOTONIC) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts;
}

double monotonic_ms() {
    const timespec ts = monotonic();
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

tsc::Clock calibrate() {
    const char* choice = std::getenv("ZOR_CLOCK");
    if (choice && std::strcmp(choice, "clock_gettime") == 0) return tsc::Clock{};
    return tsc::Calibrate(monotonic_ms, [] {
        const timespec nap{0, 1000000};
        nanosleep(&nap, nullptr);
    });
}

const tsc::Clock& tsc_clock() {
    static const tsc::Clock c = calibrate();
    return c;
}
}  // namespace

// The origin is the monotonic clock's own (boot): fixed, no state to set up.
double now_ms() {
    const tsc::Clock& c = tsc_clock();
    return c.valid ? c.Now() : monotonic_ms();
}

// The coarse clock is what GetTickCount is: a few ms of resolution, and
// far cheaper to read than the precise one.
std::uint32_t tick_ms() {
    timespec ts = monotonic(CLOCK_MONOTONIC_COARSE);
    std::uint64_t ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
                       static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
    return static_cast<std::uint32_t>(ms);
}

// Sleep(0) gives up the rest of the time slice; longer sleeps resume after
// signals so that they last the full time.
void sleep_ms(std::uint32_t ms) {
    if (ms == 0) {
        sched_yield();
        return;
    }
    timespec req{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    timespec rem;
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) req = rem;
}

// Shared futexes (not _PRIVATE): the waiter may be another process.
bool word_wait_works() { return true; }

void word_wait(const std::uint32_t* word, std::uint32_t expected, std::uint32_t timeout_ms) {
    const timespec ts{static_cast<time_t>(timeout_ms / 1000), static_cast<long>(timeout_ms % 1000) * 1000000L};
    syscall(SYS_futex, word, FUTEX_WAIT, expected, &ts, nullptr, 0);
}

void word_wake_all(const std::uint32_t* word) {
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

const char* clock_name() { return tsc_clock().valid ? "tsc" : "clock_gettime"; }

// A system call per use is microseconds in some VMs and this runs on every
// log line and event; a thread's id never changes, so ask once per thread.
std::uint32_t current_thread_id() {
    thread_local const std::uint32_t id = static_cast<std::uint32_t>(syscall(SYS_gettid));
    return id;
}

std::uint32_t current_process_id() { return static_cast<std::uint32_t>(getpid()); }

// Ids above INT_MAX would name process groups to kill(); no process has one.
bool process_alive(std::uint32_t pid) {
    if (pid > static_cast<std::uint32_t>(INT_MAX)) return false;
    if (pid == 0) return true;  // GetProcessVersion(0) is the calling process
    if (kill(static_cast<pid_t>(pid), 0) != 0) return errno == EPERM;
    // A zombie has ended: only its parent has not collected it yet.
    char path[40], stat[128] = {};
    std::snprintf(path, sizeof path, "/proc/%u/stat", static_cast<unsigned>(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return true;
    const ssize_t n = read(fd, stat, sizeof stat - 1);
    close(fd);
    const char* end = n > 0 ? std::strrchr(stat, ')') : nullptr;  // the name may hold anything
    return !(end && end[1] == ' ' && end[2] == 'Z');
}

std::uint32_t processor_count() {
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<std::uint32_t>(n) : 1u;
}

std::uint32_t last_error() { return static_cast<std::uint32_t>(errno); }

}  // namespace zor::os
