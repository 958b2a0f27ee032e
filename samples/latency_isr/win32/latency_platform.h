// What latency_isr asks of Windows: its thread's CPU time and the size of
// the view the host hands it.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace latency {

// CPU time of the calling thread (kernel + user), in nanoseconds.
inline std::uint64_t ThreadCpuNs() {
    FILETIME c, e, k, u;
    if (!GetThreadTimes(GetCurrentThread(), &c, &e, &k, &u)) return 0;
    auto v = [](FILETIME f) { return (std::uint64_t(f.dwHighDateTime) << 32) | f.dwLowDateTime; };
    return (v(k) + v(u)) * 100;
}

// Bytes mapped from `view` to the end of its region, 0 when none.
inline std::size_t ViewBytes(const void* view) {
    MEMORY_BASIC_INFORMATION mbi;
    if (!view || !VirtualQuery(view, &mbi, sizeof mbi)) return 0;
    return mbi.RegionSize - (static_cast<const char*>(view) - static_cast<const char*>(mbi.BaseAddress));
}

}  // namespace latency
