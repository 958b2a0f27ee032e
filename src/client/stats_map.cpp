// Opening a host's statistics area for reading. Nothing is sent to the
// host: it does not learn of this reader.
#include <cstring>

#include "client/connection.h"
#include "client/trace_layout.h"

extern "C" int zor_stats_map(uint32_t host_pid, const ZorStats** stats, ZorView* view) {
    if (stats == nullptr || view == nullptr) return ZOR_E_INVALID_ARG;
    std::memset(view, 0, sizeof *view);
    *stats = nullptr;
    const int st = zor::client::MapStats(host_pid, view);
    if (st != ZOR_OK) return st;
    const std::size_t mapped = view->size;
    *stats = static_cast<const ZorStats*>(view->base);
    if (mapped < 3 * sizeof(uint32_t)) return ZOR_E_LAYOUT;
    const ZorStats* s = *stats;
    if (s->magic != ZOR_STATS_MAGIC || s->layout != ZOR_STATS_LAYOUT || s->size != sizeof(ZorStats) ||
        s->size > mapped) {
        return ZOR_E_LAYOUT;
    }
    return ZOR_OK;
}

extern "C" int zor_trace_map(uint32_t host_pid, const ZorTrace** trace, ZorView* view) {
    if (trace == nullptr || view == nullptr) return ZOR_E_INVALID_ARG;
    std::memset(view, 0, sizeof *view);
    *trace = nullptr;
    const int st = zor::client::MapStats(host_pid, view, ZOR_TRACE_NAME_PREFIX);
    if (st != ZOR_OK) return st;
    *trace = static_cast<const ZorTrace*>(view->base);
    zor::client::TraceBounds b;
    return zor::client::TraceLayout(*trace, view->size, &b);
}
