// One record out of a host's flight recorder (zor_trace.h). The host writes
// the ring while we read it: every word is loaded with acquire (a plain load
// on x86-64), so the last look at the writer's claim cannot move above the
// copy; a record the claim has passed is dropped, never handed out torn.
// Every position, length and count comes from the mapping and is checked
// against the bounds taken once from the header before it is used.
#include <cstring>

#include "client/trace_layout.h"
#include "zor/zor_client.h"

namespace zor::client {

namespace {

std::uint64_t Load(const std::uint64_t* w) { return __atomic_load_n(w, __ATOMIC_ACQUIRE); }
std::uint32_t Load32(const std::uint32_t* w) { return __atomic_load_n(w, __ATOMIC_ACQUIRE); }

// A clock reading of the host's as nanoseconds after `arrivalNs`, held to
// 0..0xFFFFFFFF (anything else, NaN included, is 0).
std::uint32_t NsFrom(double ms, std::uint64_t arrivalNs) {
    const double ns = ms * 1e6 - static_cast<double>(arrivalNs);
    return ns > 0 ? (ns < 4294967295.0 ? static_cast<std::uint32_t>(ns) : 0xFFFFFFFFu) : 0u;
}

void CopyWords(const std::uint64_t* src, std::uint64_t* dst, std::size_t words) {
    for (std::size_t i = 0; i < words; ++i) dst[i] = Load(src + i);
}

}  // namespace

int TraceLayout(const ZorTrace* t, std::size_t mapped, TraceBounds* out) {
    if (t == nullptr || mapped < sizeof(ZorTrace)) return ZOR_E_LAYOUT;
    if (Load32(&t->magic) != ZOR_TRACE_MAGIC || Load32(&t->layout) != ZOR_TRACE_LAYOUT)
        return ZOR_E_LAYOUT;
    TraceBounds b;
    const std::uint64_t size = Load32(&t->size);
    b.capacity = Load32(&t->capacity);
    b.dataBytes = Load32(&t->data_bytes);
    b.indexOffset = Load32(&t->index_offset);
    b.dataOffset = Load32(&t->data_offset);
    const std::uint64_t minData = ZOR_TRACE_RECORD_BYTES + sizeof(ZorTraceRingCall) * ZOR_TRACE_MAX_CALLS;
    const bool ok = size <= mapped && b.capacity != 0 && b.dataBytes >= minData && b.dataBytes % 8 == 0 &&
                    b.indexOffset >= sizeof(ZorTrace) && b.indexOffset % 8 == 0 && b.dataOffset % 8 == 0 &&
                    b.indexOffset + 8ull * b.capacity <= size && b.dataOffset >= sizeof(ZorTrace) &&
                    std::uint64_t{b.dataOffset} + b.dataBytes <= size;
    if (!ok) return ZOR_E_LAYOUT;
    *out = b;
    return ZOR_OK;
}

}  // namespace zor::client

extern "C" int zor_trace_copy(const ZorTrace* trace, const ZorView* view, uint64_t number, ZorTraceEvent* out) {
    using namespace zor::client;
    if (trace == nullptr || view == nullptr || out == nullptr || view->base != trace) return ZOR_E_INVALID_ARG;
    TraceBounds b;
    if (TraceLayout(trace, view->size, &b) != ZOR_OK) return ZOR_E_LAYOUT;
    if (number >= Load(&trace->written)) return ZOR_E_INVALID_ARG;
    const auto* base = reinterpret_cast<const unsigned char*>(trace);
    const auto* index = reinterpret_cast<const std::uint64_t*>(base + b.indexOffset);
    const std::uint64_t position = Load(index + number % b.capacity);
    const std::uint64_t offset = position % b.dataBytes;
    if (offset % 8 != 0 || offset + ZOR_TRACE_RECORD_BYTES > b.dataBytes) return ZOR_E_LAYOUT;
    const auto* record = reinterpret_cast<const std::uint64_t*>(base + b.dataOffset + offset);
    std::memset(out, 0, sizeof *out);
    CopyWords(record, reinterpret_cast<std::uint64_t*>(&out->head), ZOR_TRACE_RECORD_BYTES / 8);
    // A later record in the index's entry, or another record at the position.
    if (out->head.generation != number + 1) return ZOR_E_OVERWRITTEN;
    const std::uint32_t calls = out->head.calls;
    constexpr std::size_t kCallWords = sizeof(ZorTraceRingCall) / 8;
    const bool fits = calls <= ZOR_TRACE_MAX_CALLS &&
                      offset + ZOR_TRACE_RECORD_BYTES + sizeof(ZorTraceRingCall) * calls <= b.dataBytes;
    std::uint64_t words[kCallWords * ZOR_TRACE_MAX_CALLS];
    if (fits) CopyWords(record + ZOR_TRACE_RECORD_BYTES / 8, words, kCallWords * calls);
    // Overwritten while copied (a wrong count included): the claim passed it.
    if (Load(&trace->claimed) > position + b.dataBytes) return ZOR_E_OVERWRITTEN;
    if (!fits) return ZOR_E_LAYOUT;
    for (std::uint32_t i = 0; i < calls; ++i) {
        ZorTraceRingCall c;
        std::memcpy(&c, &words[kCallWords * i], sizeof c);
        const std::uint32_t start = NsFrom(c.start_ms, out->head.arrival_ns);
        const std::uint32_t end = NsFrom(c.end_ms, out->head.arrival_ns);
        out->call[i].slot = c.slot;
        out->call[i].flags = c.flags;
        out->call[i].start_ns = start;
        out->call[i].duration_ns = end > start ? end - start : 0;
    }
    return ZOR_OK;
}
