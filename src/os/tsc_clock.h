// The processor's time-stamp counter as a millisecond clock, shared by both
// platforms' time.cpp.
//
// A plain rdtsc may execute ahead of the loads before it, so a reading handed
// to another thread could be 40-120 ns behind one taken there earlier
// (measured); rdtscp, or lfence before rdtsc where rdtscp is not offered,
// waits for everything before it (16-19 ns) and never went back in 1.6
// million hand-overs. The counter is used only where the processor declares
// it invariant (the same rate in every power state and on every core), with
// a rate measured once against the system's own clock over at least 10 ms
// (error about 20 ppm); the reading is anchored to that clock, so both
// agree at the start.
#pragma once

#include <cpuid.h>

#include <cstdint>

namespace zor::os::tsc {

inline std::uint64_t read(bool rdtscp) {
    std::uint32_t lo, hi, core;
    if (rdtscp)
        asm volatile("rdtscp" : "=a"(lo), "=d"(hi), "=c"(core));
    else
        asm volatile("lfence\n\trdtsc" : "=a"(lo), "=d"(hi));
    return (static_cast<std::uint64_t>(hi) << 32) | lo;
}

// cpuid 0x80000007, EDX bit 8: what Linux reports as constant_tsc and
// nonstop_tsc together.
inline bool invariant() {
    unsigned a, b, c, d;
    return __get_cpuid(0x80000007, &a, &b, &c, &d) && (d & (1u << 8));
}

inline bool has_rdtscp() {
    unsigned a, b, c, d;
    return __get_cpuid(0x80000001, &a, &b, &c, &d) && (d & (1u << 27));
}

struct Clock {
    bool valid = false;
    bool rdtscp = false;
    std::uint64_t tsc0 = 0;
    double ms0 = 0;           // the reference clock's reading at tsc0
    double msPerTick = 0;

    double Now() const {
        return ms0 + static_cast<double>(static_cast<std::int64_t>(read(rdtscp) - tsc0)) * msPerTick;
    }
};

// Calibrates against `refMs` (the system's clock, in ms); `nap` sleeps about
// a millisecond. An invalid Clock where the counter is not invariant or does
// not tick like a clock.
template <class RefMs, class Nap>
Clock Calibrate(RefMs refMs, Nap nap) {
    Clock c;
    if (!invariant()) return c;
    c.rdtscp = has_rdtscp();
    // One counter reading paired with the reference: the narrowest of a few
    // brackets, so that a preemption in between does not count.
    auto sample = [&](std::uint64_t* tsc, double* ms) {
        std::uint64_t width = ~0ull;
        for (int i = 0; i < 8; ++i) {
            const std::uint64_t a = read(c.rdtscp);
            const double m = refMs();
            const std::uint64_t b = read(c.rdtscp);
            if (b - a < width) {
                width = b - a;
                *tsc = a + (b - a) / 2;
                *ms = m;
            }
        }
    };
    std::uint64_t t0 = 0, t1 = 0;
    double m0 = 0, m1 = 0;
    sample(&t0, &m0);
    while (refMs() - m0 < 10.0) nap();
    sample(&t1, &m1);
    const double ticks = static_cast<double>(t1 - t0);
    const double mhz = ticks / (m1 - m0) / 1000.0;
    if (mhz < 50.0 || mhz > 20000.0) return c;
    c.valid = true;
    c.tsc0 = t0;
    c.ms0 = m0;
    c.msPerTick = (m1 - m0) / ticks;
    return c;
}

}  // namespace zor::os::tsc
