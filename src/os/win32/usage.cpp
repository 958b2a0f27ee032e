// Resident memory (working set) and open handles of this process.
#include "os/win32/win32_internal.h"

#include <psapi.h>

namespace zor::os {

std::uint64_t resident_bytes() {
    PROCESS_MEMORY_COUNTERS c{};
    return GetProcessMemoryInfo(GetCurrentProcess(), &c, sizeof c) ? c.WorkingSetSize : 0;
}

std::uint32_t open_handle_count() {
    DWORD n = 0;
    return GetProcessHandleCount(GetCurrentProcess(), &n) ? n : 0;
}

}  // namespace zor::os
