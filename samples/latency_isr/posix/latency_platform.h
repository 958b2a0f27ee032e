// What latency_isr asks of Linux: its thread's CPU time and the size of
// the view the host hands it.
#pragma once

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace latency {

// CPU time of the calling thread (kernel + user), in nanoseconds.
inline std::uint64_t ThreadCpuNs() {
    timespec t;
    if (clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t) != 0) return 0;
    return std::uint64_t(t.tv_sec) * 1000000000ull + std::uint64_t(t.tv_nsec);
}

// Bytes mapped from `view` to the end of its mapping, 0 when none. Read
// from the process's map list: once, at Initialize, never per event.
inline std::size_t ViewBytes(const void* view) {
    const auto a = reinterpret_cast<std::uintptr_t>(view);
    std::FILE* maps = view ? std::fopen("/proc/self/maps", "r") : nullptr;
    if (!maps) return 0;
    std::size_t bytes = 0;
    unsigned long lo, hi;
    char line[512];
    while (std::fgets(line, sizeof line, maps)) {
        if (std::sscanf(line, "%lx-%lx", &lo, &hi) == 2 && a >= lo && a < hi) {
            bytes = hi - a;
            break;
        }
    }
    std::fclose(maps);
    return bytes;
}

}  // namespace latency
