// Time and identity queries: plain system calls, nothing to fail.
#include <cerrno>
#include <csignal>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "os/os.h"

namespace zor::os {

namespace {
timespec monotonic(clockid_t clock = CLOCK_MONOTONIC) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts;
}
}  // namespace

// The origin is the monotonic clock's own (boot): fixed, no state to set up.
double now_ms() {
    timespec ts = monotonic();
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
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

const char* clock_name() { return "clock_gettime"; }

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
