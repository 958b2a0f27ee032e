// Time and identity queries.
//
// now_ms() is read several times per interrupt event, so its cost matters.
// QueryPerformanceCounter has 100 ns steps and, under Wine, is a system
// call (77 ns measured); the processor's time-stamp counter is one
// instruction (tsc_clock.h). Where the counter is not invariant, or its
// measured rate is implausible, now_ms() reads QueryPerformanceCounter.
// Both never block and never go back; the origin is the first call.
#include <windows.h>

#include <cstdint>

#include "os/os.h"
#include "os/tsc_clock.h"

namespace zor::os {

namespace {

struct Clock {
    tsc::Clock tsc;
    std::int64_t qpc0 = 0;
    double ms_per_qpc = 0;
};

inline std::int64_t qpc() {
    LARGE_INTEGER q;
    QueryPerformanceCounter(&q);
    return q.QuadPart;
}

Clock calibrate() {
    Clock c;
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    c.ms_per_qpc = 1000.0 / static_cast<double>(f.QuadPart);
    c.qpc0 = qpc();
    c.tsc = tsc::Calibrate([&c] { return static_cast<double>(qpc() - c.qpc0) * c.ms_per_qpc; },
                           [] { Sleep(1); });
    return c;
}

const Clock& clock() {
    static const Clock c = calibrate();
    return c;
}

}  // namespace

double now_ms() {
    const Clock& c = clock();
    if (c.tsc.valid) return c.tsc.Now();
    return static_cast<double>(qpc() - c.qpc0) * c.ms_per_qpc;
}

std::uint32_t tick_ms() { return GetTickCount(); }

void sleep_ms(std::uint32_t ms) { Sleep(ms); }

// WaitOnAddress wakes only threads of the same process.
bool word_wait_works() { return false; }
void word_wait(const std::uint32_t*, std::uint32_t, std::uint32_t ms) { Sleep(ms); }
void word_wake_all(const std::uint32_t*) {}

const char* clock_name() { return clock().tsc.valid ? "tsc" : "qpc"; }

std::uint32_t current_thread_id() { return GetCurrentThreadId(); }

std::uint32_t current_process_id() { return GetCurrentProcessId(); }

bool process_alive(std::uint32_t pid) { return GetProcessVersion(pid) != 0; }

std::uint32_t processor_count() {
    SYSTEM_INFO si;
    GetSystemInfo(&si);
    return si.dwNumberOfProcessors ? si.dwNumberOfProcessors : 1;
}

std::uint32_t last_error() { return GetLastError(); }

}  // namespace zor::os
