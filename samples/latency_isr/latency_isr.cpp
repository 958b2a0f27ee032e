// latency_isr: a sample ISR module that measures how regularly it is called.
//
// The host calls ISR_GetSet(20 = Interrupt, sequence) once per interrupt
// event, on the IRQ driver's high-priority thread (the dispatch thread). We
// take a time stamp, add the interval since the previous call to a histogram
// in our private shared memory, and return. Clients map that memory and read
// the histogram while we write it (see latency_shared.h for the layout).
//
// Rules this module follows, as every ISR module must:
//  - Interrupt runs for every event: no allocation, no locks, no I/O, no
//    waiting, no calls that may block. A few arithmetic operations and
//    stores here; anything slow belongs to another thread.
//  - Every entry returns quickly; the host times each call and logs slow ones.
//  - State touched by Interrupt and by ExecISRFunc needs no lock: queued
//    ExecISRFunc requests run on the dispatch thread too, between events.
//  - Initialize/Shutdown/SetServiceProc arrive on the host's main thread.
//
// The same source builds for Windows and Linux; latency_platform.h (one per
// system) holds the two calls that differ.
#include <atomic>
#include <chrono>
#include <cstring>

#include "latency_platform.h"

#include "latency_isr/latency_shared.h"
#include "zor/zor_module.h"

namespace {

ZorServiceProc g_service = nullptr;  // the host's service entry (unused here, kept as a pattern)
std::uint32_t g_handle = 0;          // our module number
// Our shared memory, null when too small or absent. Atomic because the host
// marks a module in use before it sends Initialize: Interrupt may already be
// running on the dispatch thread while Initialize publishes the block.
std::atomic<LatencyShared*> g_shm{nullptr};
std::int64_t g_lastNs = 0;           // time of the previous Interrupt, 0 = none yet
std::int64_t g_loadNs = 0;           // start of the current load window
std::uint64_t g_loadCpu = 0;         // dispatch thread CPU time at its start (ns)

// A monotonic clock in nanoseconds (the performance counter on Windows,
// CLOCK_MONOTONIC on Linux).
std::int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Marks the block as being updated (odd generation) or done (even). Readers
// copy it and retry when the generation was odd or changed meanwhile.
void BeginUpdate(LatencyShared* s) {
    s->generation = s->generation + 1;
    std::atomic_thread_fence(std::memory_order_release);
}
void EndUpdate(LatencyShared* s) {
    std::atomic_thread_fence(std::memory_order_release);
    s->generation = s->generation + 1;
}

void Reset(LatencyShared* s) {
    BeginUpdate(s);
    s->events = 0;
    s->intervals = 0;
    s->sequence_gaps = 0;
    s->sum_interval_ns = 0;
    s->min_interval_ns = ~0ull;
    s->max_interval_ns = 0;
    std::memset(s->buckets, 0, sizeof s->buckets);
    s->resets = s->resets + 1;
    EndUpdate(s);
    g_lastNs = 0;  // the next event starts a new interval
}

std::uint32_t OnInitialize(uintptr_t view) {
    // The host hands us the view but not its size: ask the system, and do
    // without shared memory rather than write past a block that is too small.
    auto* s = reinterpret_cast<LatencyShared*>(view);
    if (s && latency::ViewBytes(s) >= sizeof(LatencyShared)) {
        s->magic = LATENCY_MAGIC;
        s->version = LATENCY_VERSION;
        Reset(s);
        s->resets = 0;
        g_shm.store(s, std::memory_order_release);  // after the block is ready
    }
    return ZOR_INIT_OK;
}

std::uint32_t OnInterrupt(std::uint32_t sequence) {
    LatencyShared* s = g_shm.load(std::memory_order_acquire);
    if (s == nullptr) return 0;  // not started yet, or no shared memory
    const std::int64_t now = NowNs();
    BeginUpdate(s);
    if (s->events != 0 && sequence != s->last_sequence + 1) s->sequence_gaps = s->sequence_gaps + 1;
    s->last_sequence = sequence;
    s->events = s->events + 1;
    if (g_lastNs != 0) {
        const std::uint64_t ns = std::uint64_t(now - g_lastNs);
        std::uint64_t b = ns / LATENCY_BUCKET_NS;
        if (b >= LATENCY_BUCKETS) b = LATENCY_BUCKETS - 1;
        s->buckets[b] = s->buckets[b] + 1;
        s->intervals = s->intervals + 1;
        s->sum_interval_ns = s->sum_interval_ns + ns;
        if (ns < s->min_interval_ns) s->min_interval_ns = ns;
        if (ns > s->max_interval_ns) s->max_interval_ns = ns;
    }
    EndUpdate(s);
    g_lastNs = now;

    // Once a second: the dispatch thread's CPU share. Reading the thread's
    // CPU time is a quick query, fine at this rate; not on every event.
    if (now - g_loadNs >= 1000000000) {
        const std::uint64_t cpu = latency::ThreadCpuNs();
        if (g_loadNs != 0)
            s->load_permille = static_cast<std::uint32_t>(double(cpu - g_loadCpu) * 1000.0 / double(now - g_loadNs));
        g_loadNs = now;
        g_loadCpu = cpu;
    }
    return 0;
}

// ExecISRFunc: `packet` lives only for the call; copy what you keep.
std::uint32_t OnExec(const ZorExecIsrPacket* packet) {
    LatencyShared* s = g_shm.load(std::memory_order_acquire);
    if (packet == nullptr || s == nullptr) return 0;
    switch (packet->func) {
    case LATENCY_FN_RESET:
        Reset(s);
        return s->resets;
    case LATENCY_FN_EVENTS:
        return s->intervals;
    default:
        return 0;
    }
}

}  // namespace

ZOR_EXPORT uint32_t ISR_GetSet(uint32_t code, uintptr_t arg) {
    switch (code) {
    case ZOR_FN_INITIALIZE: return OnInitialize(arg);
    case ZOR_FN_SHUTDOWN:
        g_shm.store(nullptr, std::memory_order_release);  // the host unmaps the block after this call
        return 0;
    case ZOR_FN_SET_SERVICE_PROC: g_service = reinterpret_cast<ZorServiceProc>(arg); return 0;
    case ZOR_FN_SET_ISR_HANDLE: g_handle = static_cast<std::uint32_t>(arg); return 0;
    case ZOR_FN_EXEC_ISR_FUNC: return OnExec(reinterpret_cast<const ZorExecIsrPacket*>(arg));
    // A client request (pipe or command 5): the body layout is ours to
    // choose; this module ignores it and answers the interval count.
    case ZOR_FN_EXEC_REMOTE_FUNC: {
        LatencyShared* s = g_shm.load(std::memory_order_acquire);
        return s ? s->intervals : 0;
    }
    case ZOR_FN_INTERRUPT: return OnInterrupt(static_cast<std::uint32_t>(arg));
    default: return 0;  // Attach/Detach of other modules: nothing to do
    }
}
