// Address-space queries: regions, the application range, module names.
#include "os/win32/win32_internal.h"

namespace zor::os {

// VirtualQuery as it is: a free region (alloc_base 0, PAGE_NOACCESS) is a
// region too; only addresses beyond the application range fail.
bool region_query(const void* addr, Region* out) {
    MEMORY_BASIC_INFORMATION mbi;
    if (VirtualQuery(addr, &mbi, sizeof mbi) == 0) return false;
    out->base = reinterpret_cast<std::uintptr_t>(mbi.BaseAddress);
    out->alloc_base = reinterpret_cast<std::uintptr_t>(mbi.AllocationBase);
    out->size = mbi.RegionSize;
    out->protect = mbi.Protect;
    out->type = mbi.Type;
    return true;
}

void app_address_range(std::uint64_t* lo, std::uint64_t* hi) {
    SYSTEM_INFO si;
    GetSystemInfo(&si);
    *lo = reinterpret_cast<std::uintptr_t>(si.lpMinimumApplicationAddress);
    *hi = reinterpret_cast<std::uintptr_t>(si.lpMaximumApplicationAddress);
}

// Allocation base 0 is a free region, not "the executable" (which is what
// GetModuleFileNameW makes of a null handle): it has no module name. A
// name cut to the buffer is still terminated.
std::uint32_t module_file_name(std::uint64_t alloc_base, char16_t* buf, std::uint32_t size) {
    if (!buf || size == 0) return 0;
    buf[0] = 0;
    if (alloc_base == 0) return 0;
    DWORD n = GetModuleFileNameW(reinterpret_cast<HMODULE>(static_cast<std::uintptr_t>(alloc_base)),
                                 win32::W(buf), size);
    if (n >= size) {
        buf[size - 1] = 0;
        n = size - 1;
    }
    return n;
}

std::uint32_t module_name_of(const void* addr, char16_t* buf, std::uint32_t size) {
    Region r;
    if (!buf || size == 0 || !region_query(addr, &r)) return 0;
    return module_file_name(r.alloc_base, buf, size);
}

}  // namespace zor::os
