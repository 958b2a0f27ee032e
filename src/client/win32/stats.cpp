// Opening a host's statistics area for reading. Nothing is sent to the
// host: it does not learn of this reader.
#include <windows.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "zor/zor_client.h"

extern "C" int zor_stats_map(uint32_t host_pid, const ZorStats** stats, ZorView* view) {
    if (stats == nullptr || view == nullptr) return ZOR_E_INVALID_ARG;
    std::memset(view, 0, sizeof *view);
    *stats = nullptr;
    const std::wstring name = L"" ZOR_STATS_NAME_PREFIX + std::to_wstring(host_pid);
    HANDLE h = OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str());
    if (h == nullptr) return ZOR_E_NO_HOST;
    void* base = MapViewOfFile(h, FILE_MAP_READ, 0, 0, 0);
    if (base == nullptr) {
        CloseHandle(h);
        return ZOR_E_SYSTEM;
    }
    MEMORY_BASIC_INFORMATION mbi{};
    const std::size_t mapped = VirtualQuery(base, &mbi, sizeof mbi) ? mbi.RegionSize : 0;
    view->base = base;
    view->handle = reinterpret_cast<std::uintptr_t>(h);
    view->size = static_cast<uint32_t>(mapped);
    *stats = static_cast<const ZorStats*>(base);
    if (mapped < 3 * sizeof(uint32_t)) return ZOR_E_LAYOUT;
    const ZorStats* s = *stats;
    if (s->magic != ZOR_STATS_MAGIC || s->layout != ZOR_STATS_LAYOUT || s->size != sizeof(ZorStats) ||
        s->size > mapped) {
        return ZOR_E_LAYOUT;
    }
    return ZOR_OK;
}
