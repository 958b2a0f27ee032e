// Time and identity queries.
//
// now_ms() is read several times per interrupt event, so its cost matters.
// QueryPerformanceCounter has 100 ns steps and, under Wine, is a system
// call (77 ns measured); the processor's time-stamp counter is one
// instruction. A plain rdtsc (10 ns) may execute ahead of the loads before
// it, so a reading handed to another thread could be 40-120 ns behind one
// taken there earlier (measured); rdtscp, or lfence before rdtsc where
// rdtscp is not offered (as in this machine's virtual processor), waits for
// everything before it (19 ns and 16 ns) and never went back in 1.6
// million hand-overs. So when the processor declares its counter invariant
// (same rate in every power state and on every core: cpuid 0x80000007,
// EDX bit 8), now_ms() reads the counter in order, scaled by a rate
// measured against QueryPerformanceCounter once, at the first call, over
// at least 10 ms (error about 20 ppm).
// Otherwise, or when the measured rate is implausible, it reads
// QueryPerformanceCounter. Both never block and never go back; the origin
// is the first call.
#include <windows.h>

#include <cpuid.h>

#include <cstdint>

#include "os/os.h"

namespace zor::os {

namespace {

struct Clock {
    bool tsc = false;
    bool rdtscp = false;
    std::uint64_t tsc0 = 0;
    double ms_per_tick = 0;
    std::int64_t qpc0 = 0;
    double ms_per_qpc = 0;
};

// The counter, read after every instruction before it has executed.
inline std::uint64_t rdtsc(bool rdtscp) {
    std::uint32_t lo, hi, core;
    if (rdtscp)
        asm volatile("rdtscp" : "=a"(lo), "=d"(hi), "=c"(core));
    else
        asm volatile("lfence\n\trdtsc" : "=a"(lo), "=d"(hi));
    return (static_cast<std::uint64_t>(hi) << 32) | lo;
}

inline std::int64_t qpc() {
    LARGE_INTEGER q;
    QueryPerformanceCounter(&q);
    return q.QuadPart;
}

bool invariant_tsc() {
    unsigned a, b, c, d;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & (1u << 8));
}

bool has_rdtscp() {
    unsigned a, b, c, d;
    return __get_cpuid(0x80000001, &a, &b, &c, &d) && (d & (1u << 27));
}

// One counter reading paired with the performance counter: the narrowest
// of a few brackets, so that a preemption in between does not count.
struct Pair {
    std::uint64_t tsc;
    std::int64_t qpc;
};
Pair sample(bool rdtscp) {
    Pair best{0, 0};
    std::uint64_t width = ~0ull;
    for (int i = 0; i < 8; ++i) {
        std::uint64_t a = rdtsc(rdtscp);
        std::int64_t q = qpc();
        std::uint64_t b = rdtsc(rdtscp);
        if (b - a < width) {
            width = b - a;
            best = {a + (b - a) / 2, q};
        }
    }
    return best;
}

Clock calibrate() {
    Clock c;
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    c.ms_per_qpc = 1000.0 / static_cast<double>(f.QuadPart);
    c.qpc0 = qpc();
    if (!invariant_tsc()) return c;
    c.rdtscp = has_rdtscp();

    constexpr double kSpanMs = 10.0;
    Pair p0 = sample(c.rdtscp);
    while (static_cast<double>(qpc() - p0.qpc) * c.ms_per_qpc < kSpanMs) Sleep(1);
    Pair p1 = sample(c.rdtscp);
    double ms = static_cast<double>(p1.qpc - p0.qpc) * c.ms_per_qpc;
    double ticks = static_cast<double>(p1.tsc - p0.tsc);
    double mhz = ticks / ms / 1000.0;
    if (mhz < 50.0 || mhz > 20000.0) return c;  // a counter that does not tick like a clock
    c.tsc = true;
    c.tsc0 = p0.tsc;
    c.ms_per_tick = ms / ticks;
    return c;
}

const Clock& clock() {
    static const Clock c = calibrate();
    return c;
}

}  // namespace

double now_ms() {
    const Clock& c = clock();
    if (c.tsc) return static_cast<double>(static_cast<std::int64_t>(rdtsc(c.rdtscp) - c.tsc0)) * c.ms_per_tick;
    return static_cast<double>(qpc() - c.qpc0) * c.ms_per_qpc;
}

std::uint32_t tick_ms() { return GetTickCount(); }

void sleep_ms(std::uint32_t ms) { Sleep(ms); }

const char* clock_name() { return clock().tsc ? "tsc" : "qpc"; }

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
